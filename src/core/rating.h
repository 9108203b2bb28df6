#pragma once
// The two messages exchanged with the rating daemon over netlink. Both are
// 576-byte payloads in the host's byte order; addresses and ports are
// copied raw from packets and so stay in network order.
#include <stddef.h>

#include "decode/http.h"
#include "linux/in6.h"
#include "linux/types.h"

#define RATING_KIND_REQUEST 0
#define RATING_KIND_REPLY 1

#define RATING_WP_REQUEST 2
#define RATING_WP_REPLY 3
#define RATING_PC_REQUEST 4
#define RATING_PC_REPLY 5

#define RATING_FAMILY_INET 2
#define RATING_FAMILY_INET6 10

enum rating_verdict {
	PASS = 0,
	WHITE_PASS = 1,
	BLOCK = 2,
};

#define RATING_MSG_LEN 576
#define RATING_URL_LEN 512

// An IPv4 address sits in the first 4 bytes, an IPv6 address fills all 16.
union rating_addr {
	__be32 ip;
	struct in6_addr ip6;
	u8 raw[16];
};

// Kernel to daemon.
struct rating_request {
	u32 kind;
	u32 service;
	u16 family;
	u8 pad0[2];
	union rating_addr src_addr;
	union rating_addr dst_addr;
	__be16 src_port;
	__be16 dst_port;
	struct http_info info; // url, then host
	u8 mac[6];
	u8 pad1[2];
};

// Daemon to kernel: the request's header fields echoed, then the verdict.
struct rating_reply {
	u32 kind;
	u32 service;
	u16 family;
	u8 pad0[2];
	union rating_addr src_addr;
	union rating_addr dst_addr;
	__be16 src_port;
	__be16 dst_port;
	u32 verdict;
	char redirect_url[RATING_URL_LEN];
	u8 pad1[12];
};

static_assert(sizeof(struct rating_request) == RATING_MSG_LEN, "rating_request is 576 bytes");
static_assert(offsetof(struct rating_request, service) == 4, "service at 4");
static_assert(offsetof(struct rating_request, family) == 8, "family at 8");
static_assert(offsetof(struct rating_request, src_addr) == 12, "src_addr at 12");
static_assert(offsetof(struct rating_request, dst_addr) == 28, "dst_addr at 28");
static_assert(offsetof(struct rating_request, src_port) == 44, "src_port at 44");
static_assert(offsetof(struct rating_request, dst_port) == 46, "dst_port at 46");
static_assert(offsetof(struct rating_request, info) == 48, "url at 48");
static_assert(offsetof(struct rating_request, info.host) == 308, "host at 308");
static_assert(offsetof(struct rating_request, mac) == 568, "mac at 568");

static_assert(sizeof(struct rating_reply) == RATING_MSG_LEN, "rating_reply is 576 bytes");
static_assert(offsetof(struct rating_reply, service) == 4, "service at 4");
static_assert(offsetof(struct rating_reply, family) == 8, "family at 8");
static_assert(offsetof(struct rating_reply, src_addr) == 12, "src_addr at 12");
static_assert(offsetof(struct rating_reply, dst_addr) == 28, "dst_addr at 28");
static_assert(offsetof(struct rating_reply, src_port) == 44, "src_port at 44");
static_assert(offsetof(struct rating_reply, dst_port) == 46, "dst_port at 46");
static_assert(offsetof(struct rating_reply, verdict) == 48, "verdict at 48");
static_assert(offsetof(struct rating_reply, redirect_url) == 52, "redirect_url at 52");
