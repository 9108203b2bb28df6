// The kernel's connections in the model (see conntrack.h).
#include "runtime/conntrack.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_compat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kmodel/net.h"
#include "net/netfilter/nf_conntrack.h"
#include "runtime/ct_id.h"
#include "runtime/fd.h"

namespace dnshookd {

namespace {

struct DestroyScan {
	Conntrack *self;
	void (*forget)(Conntrack *, uint32_t);
};

} // namespace

Conntrack::Conntrack()
{
	events_ = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
	if (!events_ || mnl_socket_bind(events_, NF_NETLINK_CONNTRACK_DESTROY, MNL_SOCKET_AUTOPID) < 0)
		throw Fatal{std::string("conntrack event socket: ") + strerror(errno)};
	portid_ = mnl_socket_get_portid(events_);
	// Lost events only cost a stale entry; a larger buffer makes them rare.
	int size = 1 << 20;
	setsockopt(mnl_socket_get_fd(events_), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
}

Conntrack::~Conntrack()
{
	for (auto &entry : by_id_)
		kmodel_ct_remove(entry.second);
	if (events_)
		mnl_socket_close(events_);
}

int Conntrack::fd(void) const { return mnl_socket_get_fd(events_); }

struct nf_conn *Conntrack::from_queue_attr(const void *payload, size_t len, uint8_t l3num)
{
	uint32_t id;
	if (!ct_id_from_queue_attr(payload, len, l3num, id))
		return nullptr;
	auto it = by_id_.find(id);
	if (it != by_id_.end())
		return it->second;
	struct nf_conn *entry = kmodel_ct_new();
	by_id_[id] = entry;
	return entry;
}

void Conntrack::forget(uint32_t id)
{
	auto it = by_id_.find(id);
	if (it == by_id_.end())
		return;
	kmodel_ct_remove(it->second);
	by_id_.erase(it);
}

void Conntrack::on_readable(void)
{
	char buf[MNL_SOCKET_BUFFER_SIZE];
	for (;;) {
		ssize_t n = mnl_socket_recvfrom(events_, buf, sizeof(buf));
		if (n < 0)
			return; // EAGAIN, or ENOBUFS after an overflow: go on
		DestroyScan scan{this, [](Conntrack *c, uint32_t id) { c->forget(id); }};
		mnl_cb_run(buf, (size_t)n, 0, 0,
			   [](const struct nlmsghdr *nlh, void *data) -> int {
				   auto *s = (DestroyScan *)data;
				   uint32_t id;
				   if (ct_id_from_event(nlh, id))
					   s->forget(s->self, id);
				   return MNL_CB_OK;
			   },
			   &scan);
	}
}

uint64_t Conntrack::white(void) const
{
	uint64_t n = 0;
	for (auto &entry : by_id_)
		n += entry.second->white_mark ? 1 : 0;
	return n;
}

} // namespace dnshookd
