// Connection tuples (see ct_tuple.h).
#include "runtime/ct_tuple.h"

#include <arpa/inet.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "runtime/fd.h"

namespace dnshookd {

namespace {

struct CtDeleter {
	void operator()(struct nf_conntrack *ct) const { nfct_destroy(ct); }
};
using CtPtr = std::unique_ptr<struct nf_conntrack, CtDeleter>;

bool has_ports(uint8_t proto) { return proto == IPPROTO_TCP || proto == IPPROTO_UDP; }

std::string end_of(const uint8_t *addr, size_t alen, uint16_t port)
{
	std::string e((const char *)addr, alen);
	e.append((const char *)&port, 2);
	return e;
}

void to_ct(const CtTuple &t, struct nf_conntrack *ct)
{
	nfct_set_attr_u8(ct, ATTR_L3PROTO, t.family);
	nfct_set_attr_u8(ct, ATTR_L4PROTO, t.proto);
	if (t.family == AF_INET6) {
		nfct_set_attr(ct, ATTR_IPV6_SRC, t.src);
		nfct_set_attr(ct, ATTR_IPV6_DST, t.dst);
	} else {
		nfct_set_attr(ct, ATTR_IPV4_SRC, t.src);
		nfct_set_attr(ct, ATTR_IPV4_DST, t.dst);
	}
	if (has_ports(t.proto)) {
		nfct_set_attr_u16(ct, ATTR_PORT_SRC, t.sport);
		nfct_set_attr_u16(ct, ATTR_PORT_DST, t.dport);
	}
}

} // namespace

std::string CtTuple::key(void) const
{
	size_t alen = family == AF_INET6 ? 16 : 4;
	std::string a = end_of(src, alen, sport), b = end_of(dst, alen, dport);
	std::string k{(char)family, (char)proto};
	return k + (a < b ? a + b : b + a);
}

bool ct_tuple_of_packet(const uint8_t *ip, size_t len, CtTuple &t)
{
	t = CtTuple{};
	size_t off;
	if (len >= 40 && (ip[0] >> 4) == 6) {
		t.family = AF_INET6;
		memcpy(t.src, ip + 8, 16);
		memcpy(t.dst, ip + 24, 16);
		t.proto = ip[6];
		off = 40;
		// Hop-by-hop, routing and destination options lie before the transport header.
		while ((t.proto == 0 || t.proto == 43 || t.proto == 60) && off + 8 <= len) {
			t.proto = ip[off];
			off += ((size_t)ip[off + 1] + 1) * 8;
		}
	} else if (len >= 20 && (ip[0] >> 4) == 4) {
		t.family = AF_INET;
		memcpy(t.src, ip + 12, 4);
		memcpy(t.dst, ip + 16, 4);
		t.proto = ip[9];
		off = (size_t)(ip[0] & 0xf) * 4;
	} else {
		return false;
	}
	if (has_ports(t.proto)) {
		if (off + 4 > len)
			return false;
		memcpy(&t.sport, ip + off, 2);
		memcpy(&t.dport, ip + off + 2, 2);
	}
	return true;
}

bool ct_tuple_of_event(const struct nlmsghdr *nlh, CtTuple &t)
{
	CtPtr ct(nfct_new());
	if (!ct || nfct_nlmsg_parse(nlh, ct.get()) < 0 || !nfct_attr_is_set(ct.get(), ATTR_L3PROTO))
		return false;
	t = CtTuple{};
	t.family = nfct_get_attr_u8(ct.get(), ATTR_L3PROTO);
	t.proto = nfct_get_attr_u8(ct.get(), ATTR_L4PROTO);
	if (t.family == AF_INET6) {
		memcpy(t.src, nfct_get_attr(ct.get(), ATTR_IPV6_SRC), 16);
		memcpy(t.dst, nfct_get_attr(ct.get(), ATTR_IPV6_DST), 16);
	} else if (t.family == AF_INET) {
		memcpy(t.src, nfct_get_attr(ct.get(), ATTR_IPV4_SRC), 4);
		memcpy(t.dst, nfct_get_attr(ct.get(), ATTR_IPV4_DST), 4);
	} else {
		return false;
	}
	if (has_ports(t.proto)) {
		t.sport = nfct_get_attr_u16(ct.get(), ATTR_PORT_SRC);
		t.dport = nfct_get_attr_u16(ct.get(), ATTR_PORT_DST);
	}
	return true;
}

CtQuery::CtQuery()
{
	h_ = nfct_open(CONNTRACK, 0);
	if (!h_)
		throw Fatal{std::string("conntrack query socket: ") + strerror(errno)};
}

CtQuery::~CtQuery()
{
	if (h_)
		nfct_close(h_);
}

bool CtQuery::exists(const CtTuple &t)
{
	CtPtr ct(nfct_new());
	if (!ct)
		return true;
	to_ct(t, ct.get());
	if (nfct_query(h_, NFCT_Q_GET, ct.get()) == 0)
		return true;
	return errno != ENOENT;
}

} // namespace dnshookd
