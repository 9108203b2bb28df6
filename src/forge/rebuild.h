#pragma once
// Bare 20-byte-header TCP segments forged from a received one, and the
// sequence arithmetic of a reply.
#include "linux/skbuff.h"
#include "linux/tcp.h"
#include "linux/types.h"

// Flag selector of the rebuild operations; any other value sets no flag.
#define REBUILD_ACK 0
#define REBUILD_FIN_ACK 1
#define REBUILD_RST 2 // acknowledgement number 0

// A reply to th's sender: sequence = th's acknowledgement number,
// acknowledgement = th's sequence number + len.
void calc_seq(struct tcphdr *th, u32 len);

// Copies the received IPv4 segment (left as it is) into a routed segment
// with a 20-byte TCP header and no payload; with `reverse` it goes back to
// the sender, answers its sequence number plus len and carries no
// connection-tracking reference. NULL for fragments, short packets, RST
// segments, bad checksums, failed copies and missing routes.
struct sk_buff *rebuild_packet(struct sk_buff *skb, u32 len, unsigned int flags, int reverse);

// The IPv6 twin; *tcphoff is the TCP header's offset from the network
// header. The result is trimmed to 60 bytes whatever extension headers the
// received packet had.
struct sk_buff *rebuild_packet6(struct sk_buff *skb, s32 len, unsigned int flags, int *tcphoff,
				int reverse);
