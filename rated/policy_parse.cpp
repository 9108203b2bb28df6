// Reading a policy: every error is collected with its line, and a policy
// with any error is not returned at all.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "rated/host_name.h"
#include "rated/policy_impl.h"

namespace policy {

namespace {

std::vector<std::string_view> words(std::string_view line)
{
	std::vector<std::string_view> out;
	size_t i = 0;
	while (i < line.size()) {
		while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
			i++;
		size_t start = i;
		while (i < line.size() && line[i] != ' ' && line[i] != '\t')
			i++;
		if (i > start)
			out.push_back(line.substr(start, i - start));
	}
	return out;
}

std::string join(const std::vector<std::string_view> &w)
{
	std::string s;
	for (std::string_view x : w)
		(s.empty() ? s : s += ' ') += x;
	return s;
}

// A '#' at the start or after a blank starts a comment; one inside a word
// (an address's fragment) does not.
std::string_view strip_comment(std::string_view line)
{
	for (size_t i = 0; i < line.size(); i++)
		if (line[i] == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t'))
			return line.substr(0, i);
	return line;
}

std::optional<Verdict> parse_verdict(std::string_view w)
{
	if (w == "pass")
		return Verdict::pass;
	if (w == "white")
		return Verdict::white_pass;
	if (w == "block")
		return Verdict::block;
	return std::nullopt;
}

// Line of the first byte that makes the text no UTF-8 text, or 0.
int first_binary_line(std::string_view text, std::string &why)
{
	int line = 1;
	for (size_t i = 0; i < text.size(); i++) {
		unsigned char c = text[i];
		if (c == '\n') {
			line++;
			continue;
		}
		if (c == 0) {
			why = "not a text file (NUL byte)";
			return line;
		}
		// Names and rules end up in log lines: a control character in
		// them (a CR is one unless it ends the line) could split one.
		bool line_end = c == '\r' && i + 1 < text.size() && text[i + 1] == '\n';
		if ((c < 0x20 && c != '\t' && !line_end) || c == 0x7f) {
			char code[8];
			snprintf(code, sizeof(code), "0x%02x", c);
			why = std::string("not a text file (control character ") + code + ")";
			return line;
		}
		if (c < 0x80)
			continue;
		size_t more = (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : 0;
		bool ok = more && c != 0xc0 && c != 0xc1 && c < 0xf5 && i + more < text.size();
		for (size_t k = 1; ok && k <= more; k++)
			ok = ((unsigned char)text[i + k] & 0xc0) == 0x80;
		if (!ok) {
			why = "not a text file (bytes that are not UTF-8)";
			return line;
		}
		i += more;
	}
	return 0;
}

class Parser {
	enum class Kind { none, wp, pc, device, broken };

public:
	Parser(Policy::Impl &p, std::vector<Error> &errors) : p_(p), errors_(errors) {}

	void line(int n, std::string_view text)
	{
		n_ = n;
		if (!text.empty() && text.back() == '\r')
			text.remove_suffix(1);
		std::vector<std::string_view> w = words(strip_comment(text));
		if (w.empty())
			return;
		if (w[0].front() == '[') {
			section(w);
			return;
		}
		std::string_view kw = w[0];
		if (kw == "block-page")
			block_page(w);
		else if (kw == "default")
			fallback(w);
		else if (kw == "schedule")
			schedule(w);
		else if (parse_verdict(kw))
			rule(w);
		else
			error("unknown keyword '" + std::string(kw) +
			      "' (block-page, default, pass, white, block, schedule, or a [section])");
	}

private:
	void error(const std::string &message) { errors_.push_back({ p_.name, n_, message }); }

	bool args(const std::vector<std::string_view> &w, size_t n, const char *usage)
	{
		if (w.size() == n + 1)
			return true;
		error(std::string(w.size() <= n ? "missing" : "extra") + " words: " + usage);
		return false;
	}

	void section(const std::vector<std::string_view> &w)
	{
		cur_ = &sink_;
		kind_ = Kind::broken;
		std::string all = join(w);
		if (all.back() != ']') {
			error("unterminated section header '" + all + "'");
			return;
		}
		std::vector<std::string_view> in = words(std::string_view(all).substr(1, all.size() - 2));
		if (in.size() == 1 && in[0] == "wp")
			open(p_.wp, Kind::wp);
		else if (in.size() == 1 && in[0] == "pc")
			open(p_.pc, Kind::pc);
		else if (!in.empty() && in[0] == "device")
			device(in);
		else
			error("unknown section '" + all + "' ([wp], [pc] or [device MAC NAME])");
	}

	void open(Section &s, Kind k)
	{
		cur_ = &s;
		kind_ = k;
		if (!s.line)
			s.line = n_;
	}

	void device(const std::vector<std::string_view> &in)
	{
		if (in.size() < 2 || in.size() > 3) {
			error("a device section is [device MAC NAME], the name one word");
			return;
		}
		std::optional<Mac> mac = parse_mac(in[1]);
		if (!mac) {
			error("bad MAC address '" + std::string(in[1]) + "' (six hex pairs such as 00:11:22:33:44:55)");
			return;
		}
		auto [it, fresh] = p_.devices.try_emplace(*mac);
		if (!fresh) {
			error("device " + mac_text(*mac) + " already has a section, line " +
			      std::to_string(it->second.section.line));
			return;
		}
		it->second.mac_text = mac_text(*mac);
		it->second.name = in.size() == 3 ? std::string(in[2]) : "";
		open(it->second.section, Kind::device);
	}

	bool in_section(std::string_view what)
	{
		// Under a broken header the rules are still checked, into a section
		// that is then thrown away.
		if (kind_ != Kind::none)
			return true;
		error("'" + std::string(what) + "' outside a section: put it under [wp], [pc] or [device MAC NAME]");
		return false;
	}

	void block_page(const std::vector<std::string_view> &w)
	{
		if (!args(w, 1, "block-page ADDRESS"))
			return;
		std::string why;
		std::optional<BlockPage> page = BlockPage::parse(w[1], why);
		if (!page)
			return error(why);
		if (kind_ == Kind::none)
			p_.block_page = std::move(page);
		else
			cur_->block_page = std::move(page);
	}

	void fallback(const std::vector<std::string_view> &w)
	{
		if (!in_section(w[0]) || !args(w, 1, "default pass|white|block"))
			return;
		std::optional<Verdict> v = parse_verdict(w[1]);
		if (!v)
			return error("bad verdict '" + std::string(w[1]) + "' (pass, white or block)");
		if (cur_->fallback)
			return error("second default in this section (first on line " +
				     std::to_string(cur_->fallback->line) + ")");
		cur_->fallback = Rule{ *v, n_, join(w) };
		p_.rules++;
	}

	void schedule(const std::vector<std::string_view> &w)
	{
		if (!in_section(w[0]) || !args(w, 3, "schedule DAYS HH:MM-HH:MM pass|white|block"))
			return;
		if (kind_ == Kind::wp)
			return error("schedules belong to parental control: [pc] or [device MAC NAME], not [wp]");
		std::string why;
		std::optional<uint8_t> days = parse_days(w[1], why);
		std::optional<Window> win = days ? parse_times(w[2], why) : std::nullopt;
		std::optional<Verdict> v = parse_verdict(w[3]);
		if (!win)
			return error(why);
		if (!v)
			return error("bad verdict '" + std::string(w[3]) + "' (pass, white or block)");
		win->days = *days;
		cur_->schedules.push_back({ *win, Rule{ *v, n_, join(w) } });
		p_.rules++;
	}

	void rule(const std::vector<std::string_view> &w)
	{
		if (!in_section(w[0]) || !args(w, 1, "pass|white|block NAME[/PATH]"))
			return;
		Pattern pat;
		std::string_view text = w[1];
		if (text.front() == '=') {
			pat.exact = true;
			text.remove_prefix(1);
		}
		size_t slash = text.find('/');
		if (slash != std::string_view::npos)
			pat.path = text.substr(slash);
		std::string why;
		pat.host = rule_host(text.substr(0, slash), why);
		if (pat.host.empty())
			return error(why);
		Rule r{ *parse_verdict(w[0]), n_, join(w) };
		const Rule *old = cur_->rules.add(pat, r);
		if (!old) {
			p_.rules++;
			return;
		}
		if (old->verdict != r.verdict)
			error("'" + r.text + "' contradicts line " + std::to_string(old->line) + ": '" + old->text + "'");
	}

	Policy::Impl &p_;
	std::vector<Error> &errors_;
	Section *cur_ = nullptr;
	Section sink_; // rules under a broken header land here, unused
	Kind kind_ = Kind::none;
	int n_ = 0;
};

} // namespace

std::optional<Mac> parse_mac(std::string_view text)
{
	Mac mac;
	if (text.size() != 17)
		return std::nullopt;
	for (size_t i = 0; i < 6; i++) {
		if (i && text[i * 3 - 1] != text[2])
			return std::nullopt;
		unsigned v = 0;
		for (size_t k = 0; k < 2; k++) {
			char c = text[i * 3 + k];
			int d = std::isxdigit((unsigned char)c) ? (std::isdigit((unsigned char)c) ? c - '0' : (c | 0x20) - 'a' + 10) : -1;
			if (d < 0)
				return std::nullopt;
			v = v * 16 + unsigned(d);
		}
		mac[i] = uint8_t(v);
	}
	if (text[2] != ':' && text[2] != '-')
		return std::nullopt;
	return mac;
}

std::string mac_text(const Mac &mac)
{
	char s[18];
	snprintf(s, sizeof(s), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	return s;
}

std::unique_ptr<Policy> Policy::parse(const std::string &text, const std::string &name, std::vector<Error> &errors)
{
	auto impl = std::make_unique<Impl>();
	impl->name = name;
	size_t before = errors.size();
	std::string why;
	if (int bad = first_binary_line(text, why)) {
		errors.push_back({ name, bad, why });
		return nullptr;
	}
	Parser parser(*impl, errors);
	int n = 0;
	for (size_t at = 0; at < text.size();) {
		size_t end = text.find('\n', at);
		bool cut = end == std::string::npos;
		parser.line(++n, std::string_view(text).substr(at, (cut ? text.size() : end) - at));
		if (cut)
			errors.push_back({ name, n, "last line has no line end (file cut short?)" });
		at = cut ? text.size() : end + 1;
	}
	if (errors.size() != before)
		return nullptr;
	return std::unique_ptr<Policy>(new Policy(std::move(impl)));
}

std::unique_ptr<Policy> Policy::load_file(const std::string &path, std::vector<Error> &errors)
{
	std::unique_ptr<std::FILE, int (*)(std::FILE *)> f(std::fopen(path.c_str(), "rb"), std::fclose);
	std::string text;
	char buf[65536];
	size_t n = 0;
	while (f && (n = std::fread(buf, 1, sizeof(buf), f.get())) > 0)
		text.append(buf, n);
	if (!f || std::ferror(f.get())) {
		errors.push_back({ path, 0, std::string("cannot read: ") + std::strerror(errno) });
		return nullptr;
	}
	return parse(text, path, errors);
}

} // namespace policy
