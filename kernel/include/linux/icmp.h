#pragma once
// The ICMP header.
#include "linux/types.h"

#define ICMP_ECHOREPLY 0
#define ICMP_DEST_UNREACH 3
#define ICMP_ECHO 8

struct icmphdr {
	u8 type;
	u8 code;
	__sum16 checksum;
	union {
		struct {
			__be16 id;
			__be16 sequence;
		} echo;
		__be32 gateway;
	} un;
};
