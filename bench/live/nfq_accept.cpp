// The live measurement's yardstick: an NFQUEUE program that accepts every
// packet it is given, copying each whole into user space as dnshookd does.
// What it costs is the price of the queue itself; dnshookd's figures are
// read against it. scripts/bench-live.sh builds and runs it.
//
//   nfq_accept [--queue N]     (default 4000; stop with SIGINT or SIGTERM)
// The C library's network headers first: the kernel's would clash.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

volatile std::sig_atomic_t g_stop;

void on_signal(int) { g_stop = 1; }

int accept_packet(struct nfq_q_handle *qh, struct nfgenmsg *, struct nfq_data *nfa, void *)
{
	struct nfqnl_msg_packet_hdr *ph = nfq_get_msg_packet_hdr(nfa);
	if (!ph)
		return 0;
	return nfq_set_verdict(qh, ntohl(ph->packet_id), NF_ACCEPT, 0, nullptr);
}

struct HandleCloser {
	void operator()(struct nfq_handle *h) const { nfq_close(h); }
};
struct QueueCloser {
	void operator()(struct nfq_q_handle *q) const { nfq_destroy_queue(q); }
};

int fail(const char *what)
{
	fprintf(stderr, "nfq_accept: %s: %s\n", what, strerror(errno));
	return 1;
}

} // namespace

int main(int argc, char **argv)
{
	unsigned queue = 4000;
	for (int i = 1; i < argc; i++) {
		if (!strcmp(argv[i], "--queue") && i + 1 < argc) {
			char *end;
			unsigned long v = strtoul(argv[++i], &end, 10);
			if (*end || v > 65535) {
				fprintf(stderr, "nfq_accept: --queue %s: not a queue number (0..65535)\n", argv[i]);
				return 2;
			}
			queue = unsigned(v);
		} else if (!strcmp(argv[i], "--help")) {
			printf("usage: %s [--queue N]\n"
			       "Accepts every packet of NFQUEUE queue N (default 4000), copied whole.\n",
			       argv[0]);
			return 0;
		} else {
			fprintf(stderr, "nfq_accept: unknown option %s (see --help)\n", argv[i]);
			return 2;
		}
	}

	std::unique_ptr<struct nfq_handle, HandleCloser> h(nfq_open());
	if (!h)
		return fail("nfq_open");
	std::unique_ptr<struct nfq_q_handle, QueueCloser> q(nfq_create_queue(h.get(), queue, accept_packet, nullptr));
	if (!q)
		return fail(("queue " + std::to_string(queue)).c_str());
	if (nfq_set_mode(q.get(), NFQNL_COPY_PACKET, 0xffff) < 0)
		return fail("copy mode");
	nfq_set_queue_maxlen(q.get(), 4096);
	int fd = nfq_fd(h.get());
	int rcvbuf = 4 << 20;
	setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf));

	struct sigaction sa = {};
	sa.sa_handler = on_signal;
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGTERM, &sa, nullptr);
	printf("nfq_accept: ready on queue %u\n", queue);
	fflush(stdout);

	alignas(8) static char buf[1 << 17];
	while (!g_stop) {
		ssize_t n = recv(fd, buf, sizeof(buf), 0);
		if (n < 0) {
			if (errno == EINTR || errno == ENOBUFS)
				continue; // ENOBUFS: the socket overflowed; go on
			return fail("recv");
		}
		nfq_handle_packet(h.get(), buf, int(n));
	}
	return 0;
}
