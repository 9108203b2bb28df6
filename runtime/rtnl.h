#pragma once
// Routes and neighbours from the host's kernel (rtnetlink), asked on
// demand: the model's route look-ups get a route to the kernel's output
// device with a header cache when the next hop's neighbour entry is
// valid, its neighbour while it resolves, and neither when the kernel has
// no entry for it; neighbour look-ups see the kernel's entry.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct dst_entry;
struct flowi;
struct mnl_socket;
struct nlmsghdr;
struct neigh_table;
struct neighbour;
struct net_device;

namespace dnshookd {

class Devices;

class Rtnl {
public:
	explicit Rtnl(Devices &devs);
	~Rtnl();
	Rtnl(const Rtnl &) = delete;
	Rtnl &operator=(const Rtnl &) = delete;

	// A route for the destination with a reference for the caller, or
	// nullptr when the kernel has none.
	struct dst_entry *route(int family, const uint8_t *daddr);
	// Makes the model's entry for (tbl, key, dev) match the kernel's.
	struct neighbour *neigh_sync(struct neigh_table *tbl, const void *key, struct net_device *dev);
	// Frees routes that are older than a second and held by nobody, and
	// brings the neighbours that packets wait for up to date.
	void sweep(void);
	// Whether packets wait for a neighbour to resolve (sweep soon).
	bool waiting(void) const { return !waiting_.empty(); }

private:
	// Frees the retired routes that no buffer holds any more.
	void free_unheld(void);
	struct Cached {
		struct dst_entry *dst;
		uint64_t made_ms;
	};
	bool ask(void *request, int (*cb)(const struct nlmsghdr *, void *), void *data);

	Devices &devs_;
	struct mnl_socket *nl_ = nullptr;
	unsigned portid_ = 0;
	unsigned seq_ = 1;
	std::map<std::string, Cached> cache_; // family byte + address bytes
	std::vector<struct dst_entry *> retired_;
	struct Waiting {
		struct neighbour *n; // a reference of our own
		uint64_t since_ms;
	};
	std::vector<Waiting> waiting_;
};

} // namespace dnshookd
