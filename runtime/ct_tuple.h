#pragma once
// Connections as the kernel's connection tracking names them: a tuple of
// protocol and the two (address, port) ends, read from a packet or from a
// conntrack event, and asked of the kernel (libnetfilter_conntrack). Kept
// apart from the model's headers, whose struct nf_conntrack is the
// kernel's and not the library's.
#include <cstddef>
#include <cstdint>
#include <string>

struct nlmsghdr;
struct nfct_handle;

namespace dnshookd {

struct CtTuple {
	uint8_t family = 0; // AF_INET, AF_INET6
	uint8_t proto = 0;
	uint8_t src[16] = {}, dst[16] = {};
	uint16_t sport = 0, dport = 0; // network order; 0 for other protocols

	// The same for both directions of a connection.
	std::string key(void) const;
};

// The tuple of an IP packet; false when its headers are cut short.
bool ct_tuple_of_packet(const uint8_t *ip, size_t len, CtTuple &t);
// The original-direction tuple of a conntrack event.
bool ct_tuple_of_event(const struct nlmsghdr *nlh, CtTuple &t);

// Asks the kernel whether it tracks the connection.
class CtQuery {
public:
	CtQuery();
	~CtQuery();
	CtQuery(const CtQuery &) = delete;
	CtQuery &operator=(const CtQuery &) = delete;
	// False only when the kernel says it has no such connection.
	bool exists(const CtTuple &t);

private:
	struct nfct_handle *h_ = nullptr;
};

} // namespace dnshookd
