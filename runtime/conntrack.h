#pragma once
// The kernel's connections as the model's nf_conn entries: one entry per
// conntrack id, made when a queued packet first names it and dropped from
// the table when the kernel reports the connection destroyed. white_mark
// lives in the entry, so it lasts exactly as long as the connection.
// References the filter holds keep an entry alive after that, as in the
// kernel.
#include <cstddef>
#include <cstdint>
#include <unordered_map>

struct mnl_socket;
struct nf_conn;

namespace dnshookd {

class Conntrack {
public:
	Conntrack();
	~Conntrack();
	Conntrack(const Conntrack &) = delete;
	Conntrack &operator=(const Conntrack &) = delete;

	// The entry for the queue's conntrack attribute (NFQA_CT) of a packet
	// of family l3num; nullptr when it names no connection.
	struct nf_conn *from_queue_attr(const void *payload, size_t len, uint8_t l3num);
	int fd(void) const;
	// Reads the destroy events waiting on fd().
	void on_readable(void);
	size_t live(void) const { return by_id_.size(); }
	uint64_t white(void) const;

private:
	void forget(uint32_t id);
	struct mnl_socket *events_ = nullptr;
	unsigned portid_ = 0;
	std::unordered_map<uint32_t, struct nf_conn *> by_id_;
};

} // namespace dnshookd
