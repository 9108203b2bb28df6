// Text and JSON-lines output of the replay (see report.h).
#include "tools/replay/report.h"

#include <cinttypes>
#include <cstdarg>

#include "common/escape.h"

namespace replay {

namespace {

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
	char buf[1024];
	va_list ap;
	va_start(ap, f);
	vsnprintf(buf, sizeof(buf), f, ap);
	va_end(ap);
	return buf;
}

// A JSON object built field by field.
struct Obj {
	std::string s;
	explicit Obj(const char *event) { s = "{\"event\":\"" + std::string(event) + "\""; }
	Obj &str(const char *k, const std::string &v)
	{
		s += ",\"" + std::string(k) + "\":" + json_string(v);
		return *this;
	}
	Obj &num(const char *k, double v)
	{
		s += ",\"" + std::string(k) + "\":" + fmt("%.6f", v);
		return *this;
	}
	Obj &num(const char *k, uint64_t v)
	{
		s += ",\"" + std::string(k) + "\":" + std::to_string(v);
		return *this;
	}
	Obj &num(const char *k, int v)
	{
		s += ",\"" + std::string(k) + "\":" + std::to_string(v);
		return *this;
	}
	Obj &flag(const char *k, bool v)
	{
		s += ",\"" + std::string(k) + "\":" + (v ? "true" : "false");
		return *this;
	}
	Obj &raw(const char *k, const std::string &v)
	{
		s += ",\"" + std::string(k) + "\":" + v;
		return *this;
	}
	Obj &view(const PacketView &v)
	{
		str("src", v.src).str("dst", v.dst).str("proto", v.proto_name());
		if (v.has_ports)
			num("sport", int(v.sport)).num("dport", int(v.dport));
		if (v.has_tcp)
			str("flags", v.flag_text()).num("seq", uint64_t(v.seq)).num("ack", uint64_t(v.ack));
		return num("payload_len", uint64_t(v.payload.size()));
	}
	std::string done() { return s + "}"; }
};

std::string counts(const std::map<std::string, uint64_t> &m)
{
	std::string s = "{";
	for (auto &[k, v] : m)
		s += (s.size() > 1 ? "," : "") + json_string(k) + ":" + std::to_string(v);
	return s + "}";
}

std::string list(const std::map<std::string, uint64_t> &m)
{
	std::string s;
	for (auto &[k, v] : m)
		s += (s.empty() ? "" : ", ") + k + " " + std::to_string(v);
	return s;
}

std::string view_text(const PacketView &v)
{
	std::string s = v.ends() + " " + v.proto_name();
	if (v.has_tcp)
		s += " [" + v.flag_text() + "] seq " + std::to_string(v.seq) + " ack " + std::to_string(v.ack);
	if (!v.payload.empty())
		s += " len " + std::to_string(v.payload.size());
	return s;
}

const char *const kIndent = "           ";

} // namespace

std::string json_string(const std::string &s)
{
	std::string o = "\"";
	for (unsigned char c : s) {
		if (c == '"' || c == '\\')
			o += '\\', o += char(c);
		else if (c < 0x20 || c >= 0x7f)
			o += fmt("\\u%04x", c);
		else
			o += char(c);
	}
	return o + "\"";
}

void Report::put(const std::string &line)
{
	fputs(line.c_str(), out_);
	fputc('\n', out_);
}

void Report::start(const std::string &capture, const std::string &link)
{
	if (quiet_)
		return;
	if (json_)
		put(Obj("capture").str("file", capture).str("link", link).done());
	else
		put("== " + capture + " (" + link + ") ==");
}

void Report::packet(const PacketEvent &e)
{
	if (quiet_)
		return;
	if (json_) {
		Obj o("packet");
		o.num("number", e.number).num("time", e.time).num("len", uint64_t(e.len)).num("caplen", uint64_t(e.caplen));
		if (e.view.proto != -1)
			o.view(e.view);
		if (!e.fed) {
			put(o.str("skipped", e.skip).done());
			return;
		}
		o.str("in", e.in).str("out", e.out).str("pre_routing", e.pre_accept ? "ACCEPT" : "DROP");
		if (e.reached_forward)
			o.str("forward", e.fwd_accept ? "ACCEPT" : "DROP");
		if (!e.decided_by.empty())
			o.str("dropped_by", e.decided_by);
		o.flag("cut", e.caplen < e.len);
		if (!e.note.empty())
			o.str("note", e.note);
		put(o.done());
		return;
	}
	std::string line = fmt("#%-5" PRIu64 " %11.6f  ", e.number, e.time);
	if (!e.fed) {
		put(line + (e.view.proto != -1 ? view_text(e.view) + "  " : "") + "not fed: " + e.skip);
		return;
	}
	line += view_text(e.view) + "  " + e.in + " -> " + e.out + "  PRE_ROUTING " + (e.pre_accept ? "ACCEPT" : "DROP");
	if (e.reached_forward)
		line += std::string("  FORWARD ") + (e.fwd_accept ? "ACCEPT" : "DROP");
	if (!e.decided_by.empty())
		line += " (" + e.decided_by + ")";
	put(line);
	if (e.caplen < e.len)
		put(fmt("%scut by the snap length: %u of %u bytes, fed as captured", kIndent, e.caplen, e.len));
	if (!e.note.empty())
		put(kIndent + e.note);
}

void Report::log(const std::string &line)
{
	if (quiet_)
		return;
	std::string l = line;
	while (!l.empty() && l.back() == '\n')
		l.pop_back();
	if (json_) {
		int level = l.size() > 2 && l[0] == '<' && l[2] == '>' ? l[1] - '0' : -1;
		put(Obj("log").num("level", level).str("line", l).done());
	} else {
		put(kIndent + std::string("log ") + dnshook::escape_bytes(l, true));
	}
}

void Report::request(const RequestEvent &e)
{
	if (quiet_)
		return;
	if (json_) {
		Obj o("request");
		o.num("id", e.id).str("service", e.service).num("family", e.family).str("src", e.src).str("dst", e.dst);
		o.num("sport", int(e.sport)).num("dport", int(e.dport)).str("host", e.host).str("url", e.url);
		if (!e.mac.empty())
			o.str("mac", e.mac);
		if (!e.problem.empty())
			o.str("problem", e.problem);
		put(o.done());
		return;
	}
	std::string line = fmt("%srequest #%" PRIu64 " %s", kIndent, e.id, e.service.c_str());
	if (!e.problem.empty()) {
		put(line + " cannot be answered: " + e.problem);
		return;
	}
	line += " " + (e.src.empty() ? std::string("-") : e.src) + " -> " + e.dst + " host \"" + dnshook::escape_bytes(e.host, true) + "\"";
	line += " url \"" + dnshook::escape_bytes(e.url, true) + "\"";
	if (!e.mac.empty())
		line += " mac " + e.mac;
	put(line);
}

void Report::reply(const ReplyEvent &e)
{
	if (quiet_)
		return;
	if (json_) {
		Obj o("reply");
		o.num("id", e.id).num("time", e.time).str("verdict", e.verdict).str("rule", e.rule).str("device", e.device);
		o.str("block_page", e.block_page);
		put(o.done());
		return;
	}
	std::string line = fmt("%sreply #%" PRIu64 " %s", kIndent, e.id, e.verdict.c_str());
	if (!e.rule.empty())
		line += " by " + e.rule;
	if (!e.device.empty())
		line += " device " + e.device;
	if (!e.block_page.empty())
		line += " block page " + e.block_page;
	put(line);
}

void Report::sent(const SentEvent &e)
{
	if (quiet_)
		return;
	if (json_) {
		Obj o("sent");
		o.num("time", e.time).str("dev", e.dev).str("kind", e.kind).view(e.view);
		if (!e.location.empty())
			o.str("location", e.location);
		put(o.done());
		return;
	}
	std::string line = kIndent + std::string("sent ") + e.kind + " on " + e.dev + ": " + view_text(e.view);
	if (!e.location.empty())
		line += " Location " + e.location;
	put(line);
}

void Report::control(const ControlEvent &e)
{
	if (quiet_)
		return;
	if (json_)
		put(Obj("control").num("time", e.time).str("file", e.file).str("text", e.text).num("result", e.result).done());
	else
		put(fmt("@      %11.6f  echo -n '%s' > /proc/%s  = %d", e.time, dnshook::escape_bytes(e.text, true).c_str(), e.file.c_str(),
			e.result));
}

void Report::summary(const Summary &s)
{
	uint64_t pps = s.wall_seconds > 0 ? uint64_t(double(s.fed) / s.wall_seconds) : 0;
	if (json_) {
		Obj o("summary");
		o.num("read", s.read).num("fed", s.fed).num("skipped", s.skipped).num("cut", s.cut);
		o.num("pre_routing_accepted", s.pre_accept).num("pre_routing_dropped", s.pre_drop);
		o.num("forward_accepted", s.fwd_accept).num("forward_dropped", s.fwd_drop).raw("dropped_by", counts(s.drops_by));
		o.raw("requests", counts(s.requests)).raw("verdicts", counts(s.verdicts));
		o.raw("sent", counts(s.sent)).num("capture_seconds", s.capture_seconds).num("wall_seconds", s.wall_seconds);
		o.num("packets_per_second", pps);
		if (!s.error.empty())
			o.str("error", s.error);
		put(o.done());
		return;
	}
	auto row = [&](const char *name, const std::string &v) { put(fmt("  %-20s %s", name, v.c_str())); };
	put("== summary ==");
	row("packets", fmt("%" PRIu64 " read, %" PRIu64 " through the filter, %" PRIu64 " not fed, %" PRIu64
			   " cut by the snap length",
			   s.read, s.fed, s.skipped, s.cut));
	row("PRE_ROUTING", fmt("%" PRIu64 " accepted, %" PRIu64 " dropped", s.pre_accept, s.pre_drop));
	std::string fwd = fmt("%" PRIu64 " accepted, %" PRIu64 " dropped", s.fwd_accept, s.fwd_drop);
	if (!s.drops_by.empty())
		fwd += " (" + list(s.drops_by) + ")";
	row("FORWARD", fwd);
	row("requests", s.requests.empty() ? "none" : list(s.requests));
	std::string v = s.verdicts.empty() ? "none" : list(s.verdicts);
	row("verdicts", v);
	auto n = [&](const char *k) {
		auto it = s.sent.find(k);
		return it == s.sent.end() ? uint64_t(0) : it->second;
	};
	row("sent by the filter", fmt("%" PRIu64 " redirects, %" PRIu64 " resets, %" PRIu64 " FIN+ACKs, %" PRIu64
				      " ACKs, %" PRIu64 " held copies replayed, %" PRIu64 " other",
				      n("redirect"), n("reset"), n("fin-ack"), n("ack"), n("held copy"), n("other")));
	row("time", fmt("%.3f s of capture replayed in %.3f s (%" PRIu64 " packets/s)", s.capture_seconds,
			s.wall_seconds, pps));
	if (!s.error.empty())
		row("stopped", s.error);
}

} // namespace replay
