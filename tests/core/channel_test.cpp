// The netlink channel: socket set-up and release, the framing of what is
// sent to group 1, and which incoming buffers reach the handler.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/channel.h"
#include "core/rating.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/netlink.h"
#include "sim/netlink_peer.h"
#include "sim/router.h"

namespace {

using Lines = std::vector<std::string>;
using sim::Bytes;

struct Call {
	u16 type;
	int len;
	struct rating_reply reply;
};
std::vector<Call> calls;

int record(void *data, u16 type, int len)
{
	Call c = { type, len, {} };
	memcpy(&c.reply, data, sizeof(c.reply)); // a whole reply is always readable
	calls.push_back(c);
	return 0;
}

class Channel : public ::testing::Test {
protected:
	void SetUp() override
	{
		calls.clear();
		kmodel_log_clear();
	}
	void TearDown() override
	{
		nlink_fini();
		EXPECT_EQ(0, kmodel_netlink_kernel_sockets());
		EXPECT_EQ(0, kmodel_skb_stats_get().live);
	}
	sim::Router router; // a fresh model
};

Bytes header(u32 nlmsg_len, u16 type, size_t total)
{
	Bytes b(total, 0);
	struct nlmsghdr h = { nlmsg_len, type, 0, 0, 4242 };
	memcpy(b.data(), &h, total < sizeof(h) ? total : sizeof(h));
	return b;
}

} // namespace

TEST_F(Channel, SocketIsMadeOnlyWithAHandlerAndReleasedOnce)
{
	EXPECT_EQ(-22, nlink_init(nullptr));
	EXPECT_EQ(Lines{ "<3>[nlink_init]: No handler interests the netlink socket\n" }, kmodel_log());
	EXPECT_FALSE(kmodel_netlink_kernel_exists(NETLINK_USERSOCK));
	nlink_fini(); // nothing to release

	kmodel_log_clear();
	kmodel_fail_netlink_create_nth(1);
	EXPECT_EQ(-22, nlink_init(record));
	EXPECT_EQ(Lines{ "<3>[nlink_init]: netlink socket create failed\n" }, kmodel_log());
	// Before the socket exists a request is dropped, silently.
	struct rating_request req = {};
	EXPECT_EQ(-1, send_to_user(0, &req, sizeof(req)));
	EXPECT_EQ(0, kmodel_skb_stats_get().total_allocs);
	nlink_fini();

	kmodel_log_clear();
	EXPECT_EQ(0, nlink_init(record));
	EXPECT_TRUE(kmodel_netlink_kernel_exists(NETLINK_USERSOCK));
	EXPECT_TRUE(kmodel_log().empty());
	nlink_fini();
	EXPECT_EQ(0, kmodel_netlink_kernel_sockets());
	nlink_fini();
}

TEST_F(Channel, SendFramesThePayloadForGroupOne)
{
	ASSERT_EQ(0, nlink_init(record));
	Bytes data(577);
	for (size_t i = 0; i < data.size(); i++)
		data[i] = uint8_t(i * 7 + 1);
	EXPECT_EQ(0, send_to_user(0, data.data(), 576)) << "no listener is no failure";
	sim::NetlinkPeer daemon, other(NETLINK_USERSOCK, 99, 2);

	ASSERT_EQ(0, send_to_user(0, data.data(), 576));
	ASSERT_EQ(0, send_to_user(9, data.data(), 577));
	auto msgs = daemon.read();
	ASSERT_EQ(2u, msgs.size());
	struct { size_t len; u32 nlmsg_len; u16 type; } want[] = { { 592, 592, 0 }, { 596, 593, 9 } };
	for (int i = 0; i < 2; i++) {
		const Bytes &b = msgs[i].bytes;
		ASSERT_EQ(want[i].len, b.size());
		struct nlmsghdr h;
		memcpy(&h, b.data(), sizeof(h));
		EXPECT_EQ(want[i].nlmsg_len, h.nlmsg_len);
		EXPECT_EQ(want[i].type, h.nlmsg_type);
		EXPECT_EQ(0, h.nlmsg_flags);
		EXPECT_EQ(0u, h.nlmsg_seq);
		EXPECT_EQ(0u, h.nlmsg_pid);
		EXPECT_EQ(0u, msgs[i].src_pid);
		EXPECT_EQ(1u, msgs[i].dst_group);
		size_t n = h.nlmsg_len - 16;
		EXPECT_EQ(Bytes(data.begin(), data.begin() + n), Bytes(b.begin() + 16, b.begin() + 16 + n));
		EXPECT_EQ(Bytes(b.size() - h.nlmsg_len, 0), Bytes(b.begin() + h.nlmsg_len, b.end()));
	}
	EXPECT_TRUE(other.read().empty());

	daemon.set_rcvbuf(0); // a full daemon is no failure of ours
	EXPECT_EQ(0, send_to_user(0, data.data(), 576));

	EXPECT_EQ(-1, send_to_user(0, nullptr, 576));
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_EQ(-1, send_to_user(0, data.data(), 576));
	Lines log = { "<7>[send_to_user]: Incoming data is NULL\n", "<7>[send_to_user]: Unable to allocate skb\n" };
	EXPECT_EQ(log, kmodel_log());
}

TEST_F(Channel, IncomingBuffersThatReachTheHandler)
{
	ASSERT_EQ(0, nlink_init(record));
	sim::NetlinkPeer daemon;

	struct rating_reply reply;
	memset(&reply, 0x5a, sizeof(reply));
	Bytes raw(sizeof(reply));
	for (size_t i = 0; i < raw.size(); i++)
		raw[i] = uint8_t(i);
	memcpy(&reply, raw.data(), raw.size());
	ASSERT_GT(daemon.send(5, &reply, sizeof(reply)), 0);
	ASSERT_EQ(1u, calls.size());
	EXPECT_EQ(5, calls[0].type);
	EXPECT_EQ(576, calls[0].len);
	EXPECT_EQ(0x03020100u, calls[0].reply.kind); // byte 0 first: host order
	EXPECT_EQ(0x33323130u, calls[0].reply.verdict);
	EXPECT_EQ(52, (uint8_t)calls[0].reply.redirect_url[0]);

	// A bare header: the handler sees a count of 0 and a zero-filled reply.
	calls.clear();
	daemon.send_raw(header(16, 3, 16));
	ASSERT_EQ(1u, calls.size());
	EXPECT_EQ(0, calls[0].len);
	EXPECT_EQ(0u, calls[0].reply.kind);
	EXPECT_EQ(0u, calls[0].reply.verdict);

	// The count is the buffer's, not the header's.
	calls.clear();
	daemon.send_raw(header(592, 0, 600));
	ASSERT_EQ(1u, calls.size());
	EXPECT_EQ(584, calls[0].len);

	calls.clear();
	kmodel_log_clear();
	daemon.send_raw(header(16, 0, 15));
	daemon.send_raw(header(100, 0, 50)); // claims more than it holds
	daemon.send_raw(header(8, 0, 50));   // claims less than a header
	EXPECT_TRUE(calls.empty());
	EXPECT_EQ(Lines{ "<7>[handle_packet]: skb(15) < nlhdr(16)\n" }, kmodel_log());

	// The handler is replaced even when the call fails: no one is called.
	EXPECT_EQ(-22, nlink_init(nullptr));
	daemon.send(5, &reply, sizeof(reply));
	EXPECT_TRUE(calls.empty());
}
