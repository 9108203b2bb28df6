#include "sim/conversation.h"

namespace sim {

Bytes Conversation::segment(bool from_client, Tcp tcp, Ip4 ip) const
{
	tcp.sport = from_client ? cport : sport;
	tcp.dport = from_client ? sport : cport;
	if (v6) {
		Ip6 ip6;
		ip6.src = from_client ? client6 : server6;
		ip6.dst = from_client ? server6 : client6;
		return ip6_tcp(ip6, tcp);
	}
	ip.src = from_client ? client : server;
	ip.dst = from_client ? server : client;
	return ip4_tcp(ip, tcp);
}

Bytes Conversation::packet(bool from_client, uint8_t flags, const std::string &payload)
{
	uint32_t &seq = from_client ? cseq : sseq;
	Tcp t;
	t.seq = seq;
	t.ack = (flags & ACK) ? (from_client ? sseq : cseq) : 0;
	t.flags = flags;
	t.payload.assign(payload.begin(), payload.end());
	seq += payload.size() + ((flags & (SYN | FIN)) ? 1 : 0);
	return segment(from_client, t);
}

} // namespace sim
