#pragma once
// The verdict dispatcher: applies the daemon's rating replies to the
// tracked HTTP connections and non-HTTP flows.
#include "core/rating.h"
#include "linux/types.h"

// The channel's handler: data is a rating_reply; type and len are not
// used. 0 handled or ignored, -1 for an unexpected kind or service.
int receive_from_user(void *data, u16 type, int len);
// The same for replies about IPv6 connections (family 10).
int handle6(const struct rating_reply *reply);
