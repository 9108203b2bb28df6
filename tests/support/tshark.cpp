#include "support/tshark.h"

#include <cstdio>
#include <cstdlib>

bool have_tshark() { return system("command -v tshark >/dev/null 2>&1") == 0; }

const char kTsharkCheckChecksums[] =
	"-o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE";

// Single quotes around an argument for the shell.
static std::string quoted(const std::string &s)
{
	std::string out = "'";
	for (char c : s)
		out += c == '\'' ? std::string("'\\''") : std::string(1, c);
	return out + "'";
}

// The cells of one line, trailing empty ones included.
static std::vector<std::string> split_tabs(const std::string &line)
{
	std::vector<std::string> cells;
	size_t start = 0;
	for (;;) {
		size_t tab = line.find('\t', start);
		cells.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
		if (tab == std::string::npos)
			return cells;
		start = tab + 1;
	}
}

bool tshark_fields(const std::string &path, const std::string &options, const std::string &filter,
		   const std::vector<std::string> &fields, TsharkRows *rows)
{
	rows->clear();
	std::string cmd = "tshark -n -r " + quoted(path) + " " + options;
	if (!filter.empty())
		cmd += " -Y " + quoted(filter);
	cmd += " -T fields -E separator=/t";
	for (const auto &f : fields)
		cmd += " -e " + quoted(f);
	FILE *p = popen((cmd + " 2>/dev/null").c_str(), "r");
	if (!p)
		return false;
	std::string text;
	char chunk[4096];
	for (size_t got; (got = fread(chunk, 1, sizeof(chunk), p)) > 0;)
		text.append(chunk, got);
	bool ok = pclose(p) == 0;

	size_t start = 0;
	while (start < text.size()) {
		size_t nl = text.find('\n', start);
		if (nl == std::string::npos)
			nl = text.size();
		rows->push_back(split_tabs(text.substr(start, nl - start)));
		ok = ok && rows->back().size() == fields.size();
		start = nl + 1;
	}
	return ok;
}
