#pragma once
// DNS decoder: the question name of a query or response and the A and AAAA
// addresses of a response's answer section.
#include "linux/types.h"

#define DNS_NAME_LEN 256
#define DNS_MAX_ADDRS 30
#define DNS_MAX_ANSWERS 29

// One address slot. Slots are copied and compared as whole 20-byte blocks,
// so pad must stay zero.
struct dns_addr {
	u16 family;  // AF_INET (2), AF_INET6 (10) or 0 for an empty slot
	u8 pad[2];
	u8 addr[16];  // network order; IPv4 uses the first 4 bytes
};

// The decoded message. The caller zero-fills all of it before decoding:
// the decoder clears only name. client is the caller's.
struct dns_info {
	char name[DNS_NAME_LEN];  // lower case, at most 254 characters
	__be32 client;
	u8 count;                 // ANCOUNT & 0xff, responses with class IN only
	struct dns_addr addrs[DNS_MAX_ADDRS];
};

// msg: the DNS header; len: bytes from there to the end of the packet
// data. 0 when the message was accepted (name empty if nothing usable was
// found), -1 otherwise.
int decode_dns(const u8 *msg, int len, struct dns_info *info);

// The header checks of decode_dns alone: 1 and *kind = 1 (query) or 2
// (response) when they pass, else 0.
u32 is_valid_dns(const u8 *msg, int len, u32 *kind);

// Reads the possibly compressed name at *cursor into out (256 bytes),
// lower-cased, dotted, NUL-terminated. 1 on success with *cursor moved past
// the name as written at that place; 0 on any bound problem, a root name,
// a name of 255 characters or more, or 256 pointer hops.
u32 extract_name(const u8 *msg, int len, const u8 **cursor, char *out);

static_assert(sizeof(struct dns_addr) == 20, "dns_addr is 20 bytes");
static_assert(offsetof(struct dns_addr, addr) == 4, "two zero bytes before addr");
static_assert(offsetof(struct dns_info, client) == 256, "client follows name");
static_assert(offsetof(struct dns_info, count) == 260, "count follows client");
static_assert(offsetof(struct dns_info, addrs) == 262, "addrs follow count");
static_assert(sizeof(struct dns_info) == 864, "dns_info is 864 bytes");
