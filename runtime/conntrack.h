#pragma once
// The kernel's connections as the model's nf_conn entries, one per
// connection tuple (both directions share it), made when a packet of the
// connection is first queued. An entry leaves the table when the kernel
// reports the connection destroyed, or when a check finds that the kernel
// never confirmed it (its first packet was dropped). white_mark lives in
// the entry, so it lasts as long as the kernel's connection; references
// the filter holds keep an entry alive after that, as in the kernel.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "runtime/ct_tuple.h"

struct mnl_socket;
struct nf_conn;
struct nlmsghdr;

namespace dnshookd {

class Conntrack {
public:
	Conntrack();
	~Conntrack();
	Conntrack(const Conntrack &) = delete;
	Conntrack &operator=(const Conntrack &) = delete;

	// The entry of the packet's connection and the packet's ctinfo;
	// nullptr for a packet whose headers name no connection.
	struct nf_conn *of_packet(const uint8_t *ip, size_t len, int &ctinfo);
	int fd(void) const;
	// Reads the destroy events waiting on fd().
	void on_readable(void);
	// Drops entries idle for a while that the kernel does not track.
	void sweep(void);
	size_t live(void) const { return by_key_.size(); }
	uint64_t white(void) const;

private:
	struct Entry {
		struct nf_conn *ct;
		CtTuple first; // the direction first seen: the original one
		uint64_t seen_ms;
	};
	void forget(const std::string &key);
	int on_event(const struct nlmsghdr *nlh);

	struct mnl_socket *events_ = nullptr;
	CtQuery query_;
	std::unordered_map<std::string, Entry> by_key_;
	uint64_t next_sweep_ms_ = 0;
};

} // namespace dnshookd
