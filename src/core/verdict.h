#pragma once
// The verdict dispatcher: applies the daemon's rating replies.
#include "linux/types.h"

int receive_from_user(void *data, u16 type, int len);
