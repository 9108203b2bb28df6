// Routes and neighbours from the kernel (see rtnl.h).
#include "runtime/rtnl.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "kmodel/live.h"
#include "linux/netdevice.h"
#include "net/arp.h"
#include "net/dst.h"
#include "net/flow.h"
#include "net/ndisc.h"
#include "net/neighbour.h"
#include "runtime/devices.h"
#include "runtime/fd.h"

namespace dnshookd {

namespace {

Rtnl *g_rtnl;
const uint64_t kRouteLifeMs = 1000;

uint64_t now_ms(void)
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000 + (uint64_t)ts.tv_nsec / 1000000;
}

struct dst_entry *route_hook(int family, const struct flowi *fl)
{
	const uint8_t *daddr = family == AF_INET6 ? fl->fl6_dst.s6_addr : (const uint8_t *)&fl->fl4_dst;
	return g_rtnl->route(family, daddr);
}

void neigh_hook(struct neigh_table *tbl, const void *key, struct net_device *dev)
{
	if (dev)
		g_rtnl->neigh_sync(tbl, key, dev);
}

// Calls fn for each attribute behind a message's fixed header.
template <typename Fn> void for_each_attr(const struct nlmsghdr *nlh, size_t header, Fn fn)
{
	auto *attr = (const nlattr *)mnl_nlmsg_get_payload_offset(nlh, header);
	auto *tail = (const char *)mnl_nlmsg_get_payload_tail(nlh);
	while (mnl_attr_ok(attr, (int)(tail - (const char *)attr))) {
		fn(attr);
		attr = mnl_attr_next(attr);
	}
}

struct RouteAnswer {
	bool found = false;
	int oif = 0;
	uint8_t gateway[16] = {};
	bool has_gateway = false;
	int type = 0;
};

int route_cb(const struct nlmsghdr *nlh, void *data)
{
	auto *ans = (RouteAnswer *)data;
	if (nlh->nlmsg_type != RTM_NEWROUTE)
		return MNL_CB_OK;
	auto *rtm = (const rtmsg *)mnl_nlmsg_get_payload(nlh);
	ans->found = true;
	ans->type = rtm->rtm_type;
	for_each_attr(nlh, sizeof(*rtm), [&](const nlattr *attr) {
		switch (mnl_attr_get_type(attr)) {
		case RTA_OIF:
			ans->oif = (int)mnl_attr_get_u32(attr);
			break;
		case RTA_GATEWAY:
			if (mnl_attr_get_payload_len(attr) <= sizeof(ans->gateway)) {
				memcpy(ans->gateway, mnl_attr_get_payload(attr), mnl_attr_get_payload_len(attr));
				ans->has_gateway = true;
			}
			break;
		}
	});
	return MNL_CB_OK;
}

struct NeighAnswer {
	bool found = false;
	uint8_t state = 0;
	uint8_t mac[6] = {};
};

int neigh_cb(const struct nlmsghdr *nlh, void *data)
{
	auto *ans = (NeighAnswer *)data;
	if (nlh->nlmsg_type != RTM_NEWNEIGH)
		return MNL_CB_OK;
	auto *ndm = (const ndmsg *)mnl_nlmsg_get_payload(nlh);
	ans->found = true;
	ans->state = (uint8_t)ndm->ndm_state;
	for_each_attr(nlh, sizeof(*ndm), [&](const nlattr *attr) {
		if (mnl_attr_get_type(attr) == NDA_LLADDR && mnl_attr_get_payload_len(attr) >= 6)
			memcpy(ans->mac, mnl_attr_get_payload(attr), 6);
	});
	return MNL_CB_OK;
}

struct neighbour *model_entry(struct neigh_table *tbl, const void *key, struct net_device *dev)
{
	for (struct neighbour *n = tbl->hash_buckets; n; n = n->next)
		if (n->dev == dev && memcmp(n->primary_key, key, tbl->key_len) == 0)
			return n;
	return nullptr;
}

} // namespace

Rtnl::Rtnl(Devices &devs) : devs_(devs)
{
	nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
	if (!nl_ || mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID) < 0)
		throw Fatal{std::string("rtnetlink socket: ") + strerror(errno)};
	portid_ = mnl_socket_get_portid(nl_);
	g_rtnl = this;
	kmodel_set_route_fn(route_hook);
	kmodel_set_neigh_fn(neigh_hook);
}

Rtnl::~Rtnl()
{
	kmodel_set_route_fn(nullptr);
	kmodel_set_neigh_fn(nullptr);
	g_rtnl = nullptr;
	// Routes no buffer holds any more go now; one a buffer still holds
	// stays with it (the filter's held copies outlive dnshookd's parts).
	for (auto &entry : cache_) {
		dst_release(entry.second.dst);
		retired_.push_back(entry.second.dst);
	}
	cache_.clear();
	free_unheld();
	if (nl_)
		mnl_socket_close(nl_);
}

bool Rtnl::ask(void *request, int (*cb)(const struct nlmsghdr *, void *), void *data)
{
	auto *nlh = (struct nlmsghdr *)request;
	nlh->nlmsg_seq = seq_++;
	if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0)
		return false;
	char buf[MNL_SOCKET_BUFFER_SIZE];
	for (;;) {
		ssize_t n = mnl_socket_recvfrom(nl_, buf, sizeof(buf));
		if (n < 0)
			return false;
		int rc = mnl_cb_run(buf, (size_t)n, nlh->nlmsg_seq, portid_, cb, data);
		if (rc <= MNL_CB_STOP)
			return rc == MNL_CB_STOP;
		// A single answer ends the exchange (no NLMSG_DONE follows it).
		return true;
	}
}

struct neighbour *Rtnl::neigh_sync(struct neigh_table *tbl, const void *key, struct net_device *dev)
{
	char req[MNL_SOCKET_BUFFER_SIZE];
	struct nlmsghdr *nlh = mnl_nlmsg_put_header(req);
	nlh->nlmsg_type = RTM_GETNEIGH;
	nlh->nlmsg_flags = NLM_F_REQUEST;
	auto *ndm = (ndmsg *)mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg));
	ndm->ndm_family = (uint8_t)tbl->family;
	ndm->ndm_ifindex = dev->ifindex;
	mnl_attr_put(nlh, NDA_DST, (size_t)tbl->key_len, key);
	NeighAnswer ans;
	ask(req, neigh_cb, &ans);

	struct neighbour *n = model_entry(tbl, key, dev);
	if (!ans.found) {
		// An entry that packets wait on stays until the sweep gives up on it.
		bool waited_on = false;
		for (const Waiting &w : waiting_)
			waited_on |= w.n == n;
		if (n && !waited_on)
			kmodel_neigh_remove(n);
		return waited_on ? n : nullptr;
	}
	if (!n)
		return kmodel_neigh_add(tbl, key, dev, ans.mac, ans.state, 0);
	if (n->nud_state != ans.state || memcmp(n->ha, ans.mac, 6) != 0)
		kmodel_neigh_update(n, ans.mac, ans.state);
	return n;
}

struct dst_entry *Rtnl::route(int family, const uint8_t *daddr)
{
	size_t alen = family == AF_INET6 ? 16 : 4;
	std::string key((const char *)daddr, alen);
	key.insert(key.begin(), (char)family);
	auto it = cache_.find(key);
	if (it != cache_.end() && now_ms() - it->second.made_ms < kRouteLifeMs) {
		dst_hold(it->second.dst);
		return it->second.dst;
	}

	char req[MNL_SOCKET_BUFFER_SIZE];
	struct nlmsghdr *nlh = mnl_nlmsg_put_header(req);
	nlh->nlmsg_type = RTM_GETROUTE;
	nlh->nlmsg_flags = NLM_F_REQUEST;
	auto *rtm = (rtmsg *)mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg));
	rtm->rtm_family = (uint8_t)family;
	rtm->rtm_dst_len = (uint8_t)(alen * 8);
	mnl_attr_put(nlh, RTA_DST, alen, daddr);
	RouteAnswer ans;
	if (!ask(req, route_cb, &ans) || !ans.found || ans.type != RTN_UNICAST || ans.oif <= 0)
		return nullptr;
	struct net_device *dev = devs_.by_index(ans.oif);
	if (!dev)
		return nullptr;

	struct neigh_table *tbl = family == AF_INET6 ? &nd_tbl : &arp_tbl;
	const uint8_t *next_hop = ans.has_gateway ? ans.gateway : daddr;
	struct neighbour *n = neigh_sync(tbl, next_hop, dev);
	if (!n) {
		// As the kernel binds a route to a new neighbour entry: packets
		// wait in it until the address resolves (the kernel resolves it
		// for the packet it forwards there).
		static const uint8_t none[6] = {};
		n = kmodel_neigh_add(tbl, next_hop, dev, none, NUD_NONE, 0);
		waiting_.push_back(Waiting{neigh_clone(n), now_ms()});
	}
	struct dst_entry *dst;
	if (n && (n->nud_state & NUD_VALID))
		dst = kmodel_dst_new(family, dev, KMODEL_OUT_HH, n->ha);
	else if (n)
		dst = kmodel_dst_new(family, dev, KMODEL_OUT_NEIGH, nullptr, n);
	else
		dst = kmodel_dst_new(family, dev, KMODEL_OUT_NONE);

	if (it != cache_.end()) {
		dst_release(it->second.dst);
		retired_.push_back(it->second.dst);
		cache_.erase(it);
	}
	dst_hold(dst); // the cache's reference
	cache_[key] = Cached{dst, now_ms()};
	dst_hold(dst); // the caller's
	return dst;
}

void Rtnl::sweep(void)
{
	uint64_t now = now_ms();
	for (auto it = cache_.begin(); it != cache_.end();) {
		if (now - it->second.made_ms >= kRouteLifeMs) {
			dst_release(it->second.dst);
			retired_.push_back(it->second.dst);
			it = cache_.erase(it);
		} else {
			++it;
		}
	}
	for (size_t i = 0; i < waiting_.size();) {
		Waiting &w = waiting_[i];
		const uint8_t *key = w.n->primary_key;
		struct neighbour *n = w.n->dead ? nullptr : neigh_sync(w.n->tbl, key, w.n->dev);
		bool settled = !n || (n->nud_state & (NUD_VALID | NUD_FAILED));
		if (!settled && now - w.since_ms >= 3000) {
			kmodel_neigh_update(w.n, nullptr, NUD_FAILED); // drops what waits
			settled = true;
		}
		if (settled) {
			neigh_release(w.n);
			waiting_[i] = waiting_.back();
			waiting_.pop_back();
		} else {
			i++;
		}
	}
	free_unheld();
}

void Rtnl::free_unheld(void)
{
	for (size_t i = 0; i < retired_.size();) {
		if (kmodel_dst_refs(retired_[i]) == 0) {
			kmodel_dst_free(retired_[i]);
			retired_[i] = retired_.back();
			retired_.pop_back();
		} else {
			i++;
		}
	}
}

} // namespace dnshookd
