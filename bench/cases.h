#pragma once
// The cases of the packet-path benchmark. A packet case yields the one
// packet whose traversal is measured; whatever it needs first (a
// handshake, the daemon's verdict, a query before its answer) is done
// outside the measurement and only on the filter's router, so that the
// accept-all and empty chains see exactly the measured packets. Other
// cases call one entry of the filter directly.
#include <string>
#include <vector>

#include "bench/scene.h"
#include "decode/dns.h"
#include "decode/http.h"
#include "sim/pcap.h"

namespace bench {

struct Step {
	Bytes packet;
	bool up = true; // from the LAN
};

struct Case {
	const char *name;
	bool wp, pc;
	// Packet cases: every measured packet goes through kmodel_nf_hook.
	void (*setup)(Scene &);
	Step (*next)(Scene &, int i);
	void (*after)(Scene &, int i);
	// Other cases: one call measured, counted in the probe function.
	void (*call)(Scene &, int i);
	void (*prepare)(Scene &, int i);
	const char *probe;
	size_t bytes; // per call, for instructions per byte (0: not shown)
};

struct Inputs {
	Bytes cname4;        // CNAME + 4 A, built
	Bytes alias, many;   // captured: 2 CNAME + A, 29 A
	std::string browser; // a desktop browser's request, about 400 bytes
	std::string wget;    // captured
};

inline Inputs &inputs()
{
	static Inputs in;
	return in;
}

// The UDP or TCP payload of frame n (1-based) of an Ethernet capture of
// IPv4 traffic; empty when the file or the frame is missing.
inline Bytes capture_payload(const std::string &path, size_t n)
{
	std::vector<Bytes> frames;
	sim::PcapLink link;
	if (!sim::pcap_read(path, &frames, &link) || link != sim::PCAP_ETHERNET || n - 1 >= frames.size())
		return {};
	const Bytes &f = frames[n - 1];
	size_t ip = 14, ihl = (f[ip] & 0xf) * 4, tot = size_t(f[ip + 2]) << 8 | f[ip + 3];
	size_t l4 = ip + ihl, hdr = f[ip + 9] == 17 ? 8 : (f[l4 + 12] >> 4) * 4;
	return Bytes(f.begin() + l4 + hdr, f.begin() + ip + tot);
}

inline void load_inputs(const std::string &data_dir)
{
	Inputs &in = inputs();
	in.cname4 = dns_cname_response(7, "www.example.com", "edge");
	in.alias = capture_payload(data_dir + "/dns.pcap", 8);
	in.many = capture_payload(data_dir + "/dns.pcap", 16);
	in.browser = browser_request("www.example.com", "/news/2026/11/22/index.html?ref=front");
	Bytes w = capture_payload(data_dir + "/http.pcap", 109);
	in.wget.assign(w.begin(), w.end());
}

// ---- helpers of the packet cases (filter router only) ----
inline bool filter(Scene &s) { return s.chain() == Chain::Filter; }

inline void open_passed_flow(Scene &s)
{
	if (!filter(s))
		return;
	s.resolve("www.example.com", 1);
	s.conn = Conn{ 40100, 443, "93.184.216.31" };
	for (int i = 0; i < 4 && (s.pass_all() || i == 0); i++)
		s.up(s.conn.packet(true, sim::ACK | sim::PSH, "hello"));
	s.down(s.conn.packet(false, sim::ACK, "hello"));
	s.pass_all();
}

inline Step flow_segment(Scene &s, int)
{
	if (s.conn.sport != 443)
		s.conn = Conn{ 40100, 443, "93.184.216.31" };
	return { s.conn.packet(true, sim::ACK | sim::PSH, std::string(100, 'x')), true };
}

inline void open_passed_http(Scene &s)
{
	s.conn = Conn{ 40200, 80, kServer };
	if (!filter(s))
		return;
	s.handshake(s.conn);
	s.up(s.conn.packet(true, sim::ACK | sim::PSH, inputs().browser));
	s.pass_all();
	s.down(s.conn.packet(false, sim::ACK));
}

inline Step http_response_segment(Scene &s, int)
{
	return { s.conn.packet(false, sim::ACK, std::string(1400, 'x')), false };
}

inline Step rated_request(Scene &s, int)
{
	s.conn = Conn{ uint16_t(s.next_port++), 80, kServer };
	if (filter(s))
		s.handshake(s.conn);
	return { s.conn.packet(true, sim::ACK | sim::PSH, inputs().browser), true };
}

inline void pass_and_go_on(Scene &s, int)
{
	s.pass_all();
	s.up(s.conn.packet(true, sim::ACK));
}

inline Step dns_query_packet(Scene &, int i)
{
	return { udp(kClient, kResolver, 40001, 53, dns_query(uint16_t(i), "www.example.com")), true };
}

inline Step dns_answer_packet(Scene &s, int i)
{
	if (filter(s))
		s.up(udp(kClient, kResolver, 40001, 53, dns_query(uint16_t(i), "www.example.com")));
	Bytes m = inputs().cname4;
	m[0] = uint8_t(i >> 8), m[1] = uint8_t(i);
	return { udp(kResolver, kClient, 53, 40001, m), false };
}

inline void fill_http_table(Scene &s)
{
	for (int i = 0; i < 100; i++) {
		Conn c{ uint16_t(s.next_port++), 80, kServer };
		s.up(c.packet(true, sim::SYN));
	}
}

inline Step syn_into_full_table(Scene &s, int)
{
	Conn c{ uint16_t(s.next_port++), 80, kServer };
	return { c.packet(true, sim::SYN), true };
}

// ---- the direct calls ----
inline dns_info g_info;
inline http_info g_http;

inline void call_decode_dns(const Bytes &m)
{
	memset(&g_info, 0, sizeof(g_info));
	decode_dns(m.data(), int(m.size()), &g_info);
}

// The collection buffer: zero-filled, the request at its start.
inline char g_req[2048];
inline void put_request(const std::string &r)
{
	memset(g_req, 0, sizeof(g_req));
	memcpy(g_req, r.data(), std::min(r.size(), sizeof(g_req) - 1));
}

inline std::string mac_text(int i) { return "00:16:3e:00:" + std::to_string(10 + i / 80) + ":" + std::to_string(10 + i % 80); }

inline void prepare_reply(Scene &s, int)
{
	s.conn = Conn{ uint16_t(s.next_port++), 80, kServer };
	s.handshake(s.conn);
	s.up(s.conn.packet(true, sim::ACK | sim::PSH, inputs().browser));
}

inline void send_pass(Scene &s, int) { s.pass_all(); }

inline const std::vector<Case> &cases()
{
	static const std::vector<Case> all = {
		{ "flow passed, services on", true, true, open_passed_flow, flow_segment, nullptr, nullptr, nullptr,
		  "kmodel_nf_hook", 0 },
		{ "flow, services off", false, false, open_passed_flow, flow_segment, nullptr, nullptr, nullptr,
		  "kmodel_nf_hook", 0 },
		{ "HTTP segment after PASS", true, true, open_passed_http, http_response_segment, nullptr, nullptr,
		  nullptr, "kmodel_nf_hook", 0 },
		{ "rated request segment", true, true, nullptr, rated_request, pass_and_go_on, nullptr, nullptr,
		  "kmodel_nf_hook", 0 },
		{ "DNS query", true, true, nullptr, dns_query_packet, nullptr, nullptr, nullptr, "kmodel_nf_hook", 0 },
		{ "DNS answer CNAME+4A", true, true, nullptr, dns_answer_packet, nullptr, nullptr, nullptr,
		  "kmodel_nf_hook", 0 },
		{ "SYN into a full table", true, true, fill_http_table, syn_into_full_table, nullptr, nullptr, nullptr,
		  "kmodel_nf_hook", 0 },
		{ "decode_dns CNAME+4A", false, false, nullptr, nullptr, nullptr,
		  [](Scene &, int) { call_decode_dns(inputs().cname4); }, nullptr, "decode_dns", 0 },
		{ "decode_dns captured 2 CNAME+A", false, false, nullptr, nullptr, nullptr,
		  [](Scene &, int) { call_decode_dns(inputs().alias); }, nullptr, "decode_dns", 0 },
		{ "decode_dns captured 29 A", false, false, nullptr, nullptr, nullptr,
		  [](Scene &, int) { call_decode_dns(inputs().many); }, nullptr, "decode_dns", 0 },
		{ "decode_http browser GET", false, false, nullptr, nullptr, nullptr,
		  [](Scene &, int) { decode_http(g_req, int(inputs().browser.size()), &g_http); },
		  [](Scene &, int) { put_request(inputs().browser); }, "decode_http", 1 },
		{ "decode_http captured wget", false, false, nullptr, nullptr, nullptr,
		  [](Scene &, int) { decode_http(g_req, int(inputs().wget.size()), &g_http); },
		  [](Scene &, int) { put_request(inputs().wget); }, "decode_http", 2 },
		{ "control-file write", true, true, nullptr, nullptr, nullptr,
		  [](Scene &s, int i) { s.r.write_proc("tblock_proc", "add " + mac_text(i) + "\n"); },
		  [](Scene &s, int i) {
			  if (i > 0)
				  s.r.write_proc("tblock_proc", "del " + mac_text(i - 1) + "\n");
		  },
		  "tblk_proc_write", 0 },
		{ "daemon reply (PASS)", true, true, nullptr, nullptr, nullptr, send_pass, prepare_reply, "rcv_from_sk",
		  0 },
	};
	return all;
}

// Bytes per call of a case with a per-byte figure.
inline size_t case_bytes(const Case &c)
{
	if (c.bytes == 1)
		return inputs().browser.size();
	if (c.bytes == 2)
		return inputs().wget.size();
	return 0;
}

} // namespace bench
