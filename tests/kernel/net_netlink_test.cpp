// Netlink delivery and framing: one kernel socket per unit, broadcasts to
// the group's members only, a full queue, and a user send reaching the
// input callback as a live buffer freed afterwards.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/errno.h"
#include "linux/net.h"
#include "net/netlink.h"
#include "sim/netlink_peer.h"

namespace {

std::vector<std::string> g_seen;

void record_input(struct sk_buff *skb)
{
	struct nlmsghdr *h = nlmsg_hdr(skb);
	g_seen.push_back(std::to_string(skb->len) + " pid=" + std::to_string(NETLINK_CB(skb).pid) + " type=" +
			 std::to_string(h->nlmsg_type) + " live=" + std::to_string(kmodel_skb_is_live(skb)));
}

struct sk_buff *message(const char *text)
{
	size_t len = strlen(text);
	struct sk_buff *skb = alloc_skb(NLMSG_SPACE(len), GFP_ATOMIC);
	struct nlmsghdr *h = (struct nlmsghdr *)skb_put(skb, NLMSG_SPACE(len));
	memset(h, 0, NLMSG_SPACE(len));
	h->nlmsg_len = NLMSG_LENGTH(len);
	memcpy(NLMSG_DATA(h), text, len);
	NETLINK_CB(skb).dst_group = 1;
	return skb;
}

TEST(Netlink, KernelSocketBroadcastAndInput)
{
	kmodel_reset();
	g_seen.clear();
	kmodel_fail_netlink_create_nth(1);
	EXPECT_EQ(nullptr, netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL));
	struct sock *sk = netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL);
	ASSERT_NE(nullptr, sk);
	EXPECT_EQ(nullptr, netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL));
	EXPECT_EQ(-ESRCH, netlink_broadcast(sk, message("hello"), 0, 1, GFP_ATOMIC)); // nobody listens
	{
		sim::NetlinkPeer daemon(NETLINK_USERSOCK, 100, 1), other_group(NETLINK_USERSOCK, 101, 2),
			other_unit(NETLINK_ROUTE, 102, 1);
		EXPECT_EQ(0, netlink_broadcast(sk, message("hello"), 0, 1, GFP_ATOMIC));
		auto got = daemon.read();
		ASSERT_EQ(1u, got.size());
		EXPECT_EQ(1u, got[0].dst_group);
		EXPECT_EQ(sim::Bytes({ 21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0 }),
			  got[0].bytes);
		EXPECT_TRUE(other_group.read().empty());
		EXPECT_TRUE(other_unit.read().empty());
		daemon.set_rcvbuf(1);
		EXPECT_EQ(0, netlink_broadcast(sk, message("x"), 0, 1, GFP_ATOMIC));
		EXPECT_EQ(-ENOBUFS, netlink_broadcast(sk, message("x"), 0, 1, GFP_ATOMIC)); // the queue is full
		EXPECT_EQ(16 + 7, daemon.send(9, "verdict", 7));
		EXPECT_EQ(std::vector<std::string>{ "23 pid=100 type=9 live=1" }, g_seen);
		EXPECT_EQ(0, kmodel_skb_stats_get().live);
	}
	sock_release(sk->sk_socket);
	EXPECT_EQ(0, kmodel_netlink_kernel_sockets());
	sim::NetlinkPeer late(NETLINK_USERSOCK, 100, 1);
	EXPECT_EQ(-ECONNREFUSED, late.send(0, "x", 1));
}

} // namespace
