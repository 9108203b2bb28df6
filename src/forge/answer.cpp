// Acknowledging the client and resetting the server.
#include "forge/answer.h"

#include "forge/output.h"
#include "forge/rebuild.h"
#include "forge/segment.h"
#include "linux/ip.h"
#include "linux/kernel.h"

// The IPv4 header length as the first byte claims it; rebuild_packet
// judges whether the header is any good.
static int ipv4_tcp_offset(const struct sk_buff *skb)
{
	u8 _vihl, *vihl;

	vihl = (u8 *)skb_header_pointer(skb, 0, 1, &_vihl);
	return vihl ? (*vihl & 0x0f) * 4 : -1;
}

// Sends a rebuilt segment; a failed build is silent, a failed output is
// logged with the caller's line.
static int send_rebuilt(struct sk_buff *nskb, const char *fail_line, const char *fn)
{
	if (!nskb)
		return -1;
	if (output_packet(nskb) < 0) {
		printk(fail_line, fn);
		return -1;
	}
	return 0;
}

int ack_client(struct sk_buff *skb)
{
	u32 len = (u32)tcp_payload_len(skb, ipv4_tcp_offset(skb));

	return send_rebuilt(rebuild_packet(skb, len, REBUILD_ACK, 1),
			    KERN_ERR "[%s]: ACK to client failed\n", __func__);
}

int ack_client6(struct sk_buff *skb)
{
	int thoff = ipv6_tcp_offset(skb);
	s32 len = tcp_payload_len(skb, thoff);

	return send_rebuilt(rebuild_packet6(skb, len, REBUILD_ACK, &thoff, 1),
			    KERN_ERR "[%s]: ACK to client failed\n", __func__);
}

int reset_server(struct sk_buff *skb)
{
	return send_rebuilt(rebuild_packet(skb, 0, REBUILD_RST, 1),
			    KERN_ERR "[%s]: RST to server failed\n\n", __func__);
}

// The IPv6 server is not reset: it gets an ACK of what it sent.
int reset_server6(struct sk_buff *skb)
{
	int thoff = ipv6_tcp_offset(skb);
	s32 len = tcp_payload_len(skb, thoff);

	return send_rebuilt(rebuild_packet6(skb, len, REBUILD_ACK, &thoff, 1),
			    KERN_ERR "[%s]: RST to server failed\n\n", __func__);
}
