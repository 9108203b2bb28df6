#pragma once
// The routing flow key.
#include "linux/in6.h"
#include "linux/types.h"

struct flowi {
	int oif;
	int iif;
	u32 mark;

	union {
		struct {
			__be32 daddr;
			__be32 saddr;
			u8 tos;
			u8 scope;
		} ip4_u;

		struct {
			struct in6_addr daddr;
			struct in6_addr saddr;
			__be32 flowlabel;
		} ip6_u;
	} nl_u;
#define fl6_dst nl_u.ip6_u.daddr
#define fl6_src nl_u.ip6_u.saddr
#define fl6_flowlabel nl_u.ip6_u.flowlabel
#define fl4_dst nl_u.ip4_u.daddr
#define fl4_src nl_u.ip4_u.saddr
#define fl4_tos nl_u.ip4_u.tos
#define fl4_scope nl_u.ip4_u.scope

	u8 proto;
	u8 flags;
	union {
		struct {
			__be16 sport;
			__be16 dport;
		} ports;

		struct {
			u8 type;
			u8 code;
		} icmpt;

		__be32 spi;
		__be32 gre_key;
	} uli_u;
#define fl_ip_sport uli_u.ports.sport
#define fl_ip_dport uli_u.ports.dport
#define fl_icmp_type uli_u.icmpt.type
#define fl_icmp_code uli_u.icmpt.code
	u32 secid;
} __attribute__((aligned(4)));
