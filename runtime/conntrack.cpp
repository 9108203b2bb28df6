// The kernel's connections in the model (see conntrack.h).
#include "runtime/conntrack.h"

#include <libmnl/libmnl.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kmodel/net.h"
#include "net/netfilter/nf_conntrack.h"
#include "runtime/fd.h"

// From the kernel's nfnetlink_compat.h: the group of destroy events.
#define DNSHOOKD_CT_DESTROY_GROUP 0x00000004

namespace dnshookd {

namespace {
const uint64_t kIdleMs = 30000;  // entries idle this long are checked
const uint64_t kSweepMs = 10000; // at most this often

uint64_t now_ms(void)
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000 + (uint64_t)ts.tv_nsec / 1000000;
}
} // namespace

Conntrack::Conntrack()
{
	events_ = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
	if (!events_ || mnl_socket_bind(events_, DNSHOOKD_CT_DESTROY_GROUP, MNL_SOCKET_AUTOPID) < 0)
		throw Fatal{std::string("conntrack event socket: ") + strerror(errno)};
	// Lost events only leave entries for the sweep; a larger buffer makes them rare.
	int size = 1 << 20;
	setsockopt(mnl_socket_get_fd(events_), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
}

Conntrack::~Conntrack()
{
	for (auto &entry : by_key_)
		kmodel_ct_remove(entry.second.ct);
	if (events_)
		mnl_socket_close(events_);
}

int Conntrack::fd(void) const { return mnl_socket_get_fd(events_); }

struct nf_conn *Conntrack::of_packet(const uint8_t *ip, size_t len, int &ctinfo)
{
	CtTuple t;
	if (!ct_tuple_of_packet(ip, len, t))
		return nullptr;
	std::string key = t.key();
	auto it = by_key_.find(key);
	if (it == by_key_.end()) {
		ctinfo = IP_CT_NEW;
		Entry e{kmodel_ct_new(), t, now_ms()};
		by_key_.emplace(key, e);
		return e.ct;
	}
	Entry &e = it->second;
	e.seen_ms = now_ms();
	bool reply = memcmp(e.first.src, t.src, sizeof(t.src)) != 0 || e.first.sport != t.sport;
	ctinfo = reply ? IP_CT_ESTABLISHED + IP_CT_IS_REPLY : IP_CT_ESTABLISHED;
	return e.ct;
}

void Conntrack::forget(const std::string &key)
{
	auto it = by_key_.find(key);
	if (it == by_key_.end())
		return;
	kmodel_ct_remove(it->second.ct);
	by_key_.erase(it);
}

int Conntrack::on_event(const struct nlmsghdr *nlh)
{
	CtTuple t;
	if (ct_tuple_of_event(nlh, t))
		forget(t.key());
	return MNL_CB_OK;
}

void Conntrack::on_readable(void)
{
	std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
	for (;;) {
		ssize_t n = mnl_socket_recvfrom(events_, buf.data(), buf.size());
		if (n < 0)
			return; // EAGAIN, or ENOBUFS after an overflow: the sweep catches up
		mnl_cb_run(buf.data(), (size_t)n, 0, 0,
			   [](const struct nlmsghdr *nlh, void *self) { return ((Conntrack *)self)->on_event(nlh); },
			   this);
	}
}

void Conntrack::sweep(void)
{
	uint64_t now = now_ms();
	if (now < next_sweep_ms_)
		return;
	next_sweep_ms_ = now + kSweepMs;
	std::vector<std::string> gone;
	for (auto &entry : by_key_)
		if (now - entry.second.seen_ms >= kIdleMs && !query_.exists(entry.second.first))
			gone.push_back(entry.first);
	for (const std::string &key : gone)
		forget(key);
}

uint64_t Conntrack::white(void) const
{
	uint64_t n = 0;
	for (auto &entry : by_key_)
		n += entry.second.ct->white_mark ? 1 : 0;
	return n;
}

} // namespace dnshookd
