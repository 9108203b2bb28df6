#pragma once
// Small bounded helpers shared by the forging code: where the TCP header
// of a received segment is and how much payload it carries.
#include "linux/skbuff.h"
#include "linux/types.h"

// TCP payload bytes of the segment whose header starts thoff bytes into
// the data: the packet length less the header with the options it claims.
// Negative when those options run past the end of the packet (the
// sequence arithmetic then goes back by as much); 0 when the header itself
// cannot be read.
s32 tcp_payload_len(const struct sk_buff *skb, int thoff);

// Offset of the upper-layer header of an IPv6 packet, behind its
// extension headers, or -1 when the chain cannot be followed.
int ipv6_tcp_offset(const struct sk_buff *skb);
