// NFQUEUE (see queue.h).
#include "runtime/queue.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <libnetfilter_queue/libnetfilter_queue.h>

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/fd.h"

namespace dnshookd {

Queue::Queue(unsigned base, bool fail_open, Handler handler) : base_(base), handler_(std::move(handler))
{
	nl_ = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC);
	if (!nl_ || mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID) < 0)
		throw Fatal{std::string("nfqueue socket: ") + strerror(errno)};
	portid_ = mnl_socket_get_portid(nl_);
	int size = 4 << 20;
	setsockopt(mnl_socket_get_fd(nl_), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
	// The kernel reports a full socket buffer as ENOBUFS; packets are not lost
	// to it when it is told not to.
	int one = 1;
	setsockopt(mnl_socket_get_fd(nl_), SOL_NETLINK, NETLINK_NO_ENOBUFS, &one, sizeof(one));
	for (int p = 0; p < Q_COUNT; p++)
		configure(number((QueuePoint)p), p == Q_PRE6 || p == Q_FWD6 ? AF_INET6 : AF_INET, fail_open);
	// Non-blocking from now on: the event loop reads until EAGAIN.
	int fd = mnl_socket_get_fd(nl_);
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

Queue::~Queue()
{
	if (nl_)
		mnl_socket_close(nl_); // unbinds every queue
}

int Queue::fd(void) const { return mnl_socket_get_fd(nl_); }

void Queue::configure(unsigned queue, uint16_t pf, bool fail_open)
{
	char buf[MNL_SOCKET_BUFFER_SIZE];
	auto send = [&](struct nlmsghdr *nlh, const char *what) {
		nlh->nlmsg_flags |= NLM_F_ACK;
		if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0)
			throw Fatal{std::string("nfqueue ") + what + ": " + strerror(errno)};
		char ack[MNL_SOCKET_BUFFER_SIZE];
		ssize_t n = mnl_socket_recvfrom(nl_, ack, sizeof(ack));
		if (n < 0 || mnl_cb_run(ack, (size_t)n, 0, portid_, nullptr, nullptr) < 0)
			throw Fatal{"nfqueue " + std::string(what) + " of queue " + std::to_string(queue) + ": " +
				    strerror(errno) + (errno == EBUSY ? " (another program holds the queue)" : "")};
	};
	struct nlmsghdr *nlh = nfq_nlmsg_put(buf, NFQNL_MSG_CONFIG, queue);
	nfq_nlmsg_cfg_put_cmd(nlh, pf, NFQNL_CFG_CMD_BIND);
	send(nlh, "bind");

	nlh = nfq_nlmsg_put(buf, NFQNL_MSG_CONFIG, queue);
	nfq_nlmsg_cfg_put_params(nlh, NFQNL_COPY_PACKET, 0xffff);
	uint32_t flags = fail_open ? NFQA_CFG_F_FAIL_OPEN : 0;
	uint32_t mask = NFQA_CFG_F_FAIL_OPEN;
	mnl_attr_put_u32(nlh, NFQA_CFG_FLAGS, htonl(flags));
	mnl_attr_put_u32(nlh, NFQA_CFG_MASK, htonl(mask));
	nfq_nlmsg_cfg_put_qmaxlen(nlh, 4096);
	send(nlh, "configuration");
}

void Queue::verdict(unsigned queue, uint32_t id, unsigned v)
{
	char buf[MNL_SOCKET_BUFFER_SIZE];
	struct nlmsghdr *nlh = nfq_nlmsg_put(buf, NFQNL_MSG_VERDICT, queue);
	nfq_nlmsg_verdict_put(nlh, (int)id, (int)v);
	mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len);
}

int Queue::on_message(const struct nlmsghdr *nlh)
{
	struct nlattr *attr[NFQA_MAX + 1] = {};
	if (nfq_nlmsg_parse(nlh, attr) < 0 || !attr[NFQA_PACKET_HDR])
		return MNL_CB_OK;
	auto *nfg = (const nfgenmsg *)mnl_nlmsg_get_payload(nlh);
	unsigned queue = ntohs(nfg->res_id);
	auto *ph = (const nfqnl_msg_packet_hdr *)mnl_attr_get_payload(attr[NFQA_PACKET_HDR]);
	uint32_t id = ntohl(ph->packet_id);
	if (queue < base_ || queue >= base_ + Q_COUNT || !attr[NFQA_PAYLOAD]) {
		verdict(queue, id, NF_ACCEPT);
		return MNL_CB_OK;
	}
	QueuedPacket p;
	p.point = (QueuePoint)(queue - base_);
	p.data = (const uint8_t *)mnl_attr_get_payload(attr[NFQA_PAYLOAD]);
	p.len = mnl_attr_get_payload_len(attr[NFQA_PAYLOAD]);
	if (attr[NFQA_IFINDEX_INDEV])
		p.in_ifindex = (int)ntohl(mnl_attr_get_u32(attr[NFQA_IFINDEX_INDEV]));
	if (attr[NFQA_IFINDEX_OUTDEV])
		p.out_ifindex = (int)ntohl(mnl_attr_get_u32(attr[NFQA_IFINDEX_OUTDEV]));
	if (attr[NFQA_HWADDR]) {
		auto *hw = (const nfqnl_msg_packet_hw *)mnl_attr_get_payload(attr[NFQA_HWADDR]);
		if (ntohs(hw->hw_addrlen) == 6) {
			memcpy(p.hwaddr, hw->hw_addr, 6);
			p.has_hwaddr = true;
		}
	}
	verdict(queue, id, handler_(p));
	return MNL_CB_OK;
}

void Queue::on_readable(void)
{
	std::vector<char> buf(0xffff + (MNL_SOCKET_BUFFER_SIZE / 2));
	for (;;) {
		ssize_t n = mnl_socket_recvfrom(nl_, buf.data(), buf.size());
		if (n < 0) {
			if (errno == EINTR)
				continue;
			return;
		}
		mnl_cb_run(buf.data(), (size_t)n, 0, portid_,
			   [](const struct nlmsghdr *nlh, void *self) { return ((Queue *)self)->on_message(nlh); },
			   this);
	}
}

} // namespace dnshookd
