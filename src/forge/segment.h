#pragma once
// Small bounded helpers shared by the forging code: where the TCP header
// of a received segment is, how much payload it carries, and a copy of a
// segment with room behind it for an answer's payload.
#include "linux/skbuff.h"
#include "linux/types.h"

// TCP payload bytes of the segment whose header starts thoff bytes into
// the data: the packet length less the header with its options. 0 when
// the header, or the options it claims, run past the end of the packet.
u32 tcp_payload_len(const struct sk_buff *skb, int thoff);

// Offset of the upper-layer header of an IPv6 packet, behind its
// extension headers, or -1 when the chain cannot be followed.
int ipv6_tcp_offset(const struct sk_buff *skb);

// A private, linear copy of skb, as skb_copy makes it (route, connection
// tracking reference, device and marks), with at least `tailroom` bytes
// free behind the data. NULL when memory runs out.
struct sk_buff *skb_copy_room(const struct sk_buff *skb, unsigned int tailroom);
