// Netlink: kernel sockets per unit, user-side sockets held by the host,
// broadcast to groups and user sends into the kernel socket's input.
#include <map>
#include <stdlib.h>
#include <sys/socket.h>

#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include "net/netlink.h"

namespace {

struct kernel_sock {
	struct sock sk;
	struct socket sock;
	int unit;
	void (*input)(struct sk_buff *skb);
};

struct user_sock {
	int unit;
	u32 pid;
	u32 groups;
	size_t rcvbuf;
	std::vector<kmodel_nl_msg> queue;
};

std::map<int, kernel_sock *> g_kernel;       // by unit
std::map<int, user_sock> g_user;             // by handle
int g_next_handle = 1;
long g_fail_create_nth;
long g_kernel_live;

kernel_sock *kernel_of(const struct sock *sk)
{
	return container_of(sk, kernel_sock, sk);
}

} // namespace

struct sock *netlink_kernel_create(struct net *net, int unit, unsigned int groups,
				   void (*input)(struct sk_buff *skb), struct mutex *cb_mutex,
				   struct module *module)
{
	(void)groups;
	(void)cb_mutex;
	(void)module;
	if (unit < 0 || unit >= MAX_LINKS)
		return NULL;
	if (g_fail_create_nth > 0 && --g_fail_create_nth == 0)
		return NULL;
	// Port 0 of a unit is taken by its first kernel socket.
	if (g_kernel.count(unit))
		return NULL;
	kernel_sock *ks = (kernel_sock *)calloc(1, sizeof(*ks));
	BUG_ON(ks == NULL);
	ks->sk.sk_family = AF_NETLINK;
	ks->sk.sk_protocol = unit;
	ks->sk.sk_type = SOCK_RAW;
	ks->sk.sk_net = net;
	atomic_set(&ks->sk.sk_refcnt, 1);
	ks->sk.sk_socket = &ks->sock;
	ks->sock.sk = &ks->sk;
	ks->sock.type = SOCK_RAW;
	ks->sock.state = SS_UNCONNECTED;
	ks->unit = unit;
	ks->input = input;
	g_kernel[unit] = ks;
	g_kernel_live++;
	return &ks->sk;
}

void sock_release(struct socket *sock)
{
	BUG_ON(sock == NULL || sock->sk == NULL);
	kernel_sock *ks = kernel_of(sock->sk);
	auto it = g_kernel.find(ks->unit);

	BUG_ON(it == g_kernel.end() || it->second != ks); // released twice
	g_kernel.erase(it);
	g_kernel_live--;
	memset((void *)ks, 0x6b, sizeof(*ks));
	free(ks);
}

void netlink_kernel_release(struct sock *sk)
{
	if (sk)
		sock_release(sk->sk_socket);
}

static kmodel_nl_msg message_of(const struct sk_buff *skb, u32 group)
{
	kmodel_nl_msg m;

	m.bytes = kmodel_skb_bytes(skb);
	m.src_pid = NETLINK_CB(skb).pid;
	m.dst_group = group;
	return m;
}

int netlink_broadcast(struct sock *ssk, struct sk_buff *skb, u32 pid, u32 group, gfp_t allocation)
{
	(void)allocation;
	BUG_ON(ssk == NULL);
	int unit = kernel_of(ssk)->unit;
	bool delivered = false, failure = false;

	for (auto &entry : g_user) {
		user_sock &us = entry.second;
		if (us.unit != unit || us.pid == pid || group == 0 || group > 32 ||
		    !(us.groups & (1u << (group - 1))))
			continue;
		if (us.queue.size() >= us.rcvbuf) {
			failure = true;
			continue;
		}
		us.queue.push_back(message_of(skb, group));
		delivered = true;
	}
	consume_skb(skb);
	if (failure)
		return -ENOBUFS;
	return delivered ? 0 : -ESRCH;
}

int netlink_unicast(struct sock *ssk, struct sk_buff *skb, u32 pid, int nonblock)
{
	(void)nonblock;
	BUG_ON(ssk == NULL);
	int unit = kernel_of(ssk)->unit;

	for (auto &entry : g_user) {
		user_sock &us = entry.second;
		if (us.unit != unit || us.pid != pid)
			continue;
		if (us.queue.size() >= us.rcvbuf) {
			kfree_skb(skb);
			return -EAGAIN;
		}
		int len = skb->len;
		us.queue.push_back(message_of(skb, 0));
		kfree_skb(skb);
		return len;
	}
	kfree_skb(skb);
	return -ECONNREFUSED;
}

int netlink_has_listeners(struct sock *sk, unsigned int group)
{
	int unit = kernel_of(sk)->unit;

	for (auto &entry : g_user)
		if (entry.second.unit == unit && group >= 1 && group <= 32 &&
		    (entry.second.groups & (1u << (group - 1))))
			return 1;
	return 0;
}

void kmodel_fail_netlink_create_nth(long n) { g_fail_create_nth = n; }
bool kmodel_netlink_kernel_exists(int unit) { return g_kernel.count(unit) != 0; }
long kmodel_netlink_kernel_sockets(void) { return g_kernel_live; }

int kmodel_nl_open(int unit, u32 pid, u32 groups)
{
	int handle = g_next_handle++;

	g_user[handle] = user_sock{unit, pid, groups, 256, {}};
	return handle;
}

void kmodel_nl_close(int handle) { g_user.erase(handle); }

std::vector<kmodel_nl_msg> kmodel_nl_read(int handle)
{
	auto it = g_user.find(handle);

	if (it == g_user.end())
		return {};
	std::vector<kmodel_nl_msg> out;
	out.swap(it->second.queue);
	return out;
}

void kmodel_nl_set_rcvbuf(int handle, size_t max_msgs)
{
	auto it = g_user.find(handle);

	if (it != g_user.end())
		it->second.rcvbuf = max_msgs;
}

int kmodel_nl_send(int handle, const void *buf, size_t len)
{
	auto it = g_user.find(handle);

	BUG_ON(it == g_user.end());
	auto ks = g_kernel.find(it->second.unit);
	if (ks == g_kernel.end() || !ks->second->input)
		return -ECONNREFUSED;
	struct sk_buff *skb = alloc_skb(len, GFP_KERNEL);
	if (!skb)
		return -ENOBUFS;
	memcpy(skb_put(skb, len), buf, len);
	NETLINK_CB(skb).pid = it->second.pid;
	NETLINK_CB(skb).dst_group = 0;
	ks->second->input(skb);
	kfree_skb(skb);
	return (int)len;
}

void kmodel_netlink_reset(void)
{
	for (auto &entry : g_kernel)
		free(entry.second);
	g_kernel.clear();
	g_user.clear();
	g_next_handle = 1;
	g_fail_create_nth = 0;
	g_kernel_live = 0;
}
