#pragma once
// The two bare answers of a blocked connection: the acknowledgement of
// the client's request and the reset of the server. Each works on a copy
// and leaves the segment passed in as it is.
#include "linux/skbuff.h"

// An ACK to the client for its segment and its payload. 0 sent, -1 failed.
int ack_client(struct sk_buff *skb);
int ack_client6(struct sk_buff *skb);

// An RST to the server for its segment (IPv6: an ACK of its payload).
// 0 sent, -1 failed.
int reset_server(struct sk_buff *skb);
int reset_server6(struct sk_buff *skb);
