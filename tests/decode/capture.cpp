#include "capture.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

static uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
static uint32_t le32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24; }

static bool parse_frame(const uint8_t *f, size_t n, CapturedSegment *seg)
{
	const uint8_t *l4;
	size_t l4len;
	int proto;

	if (n < 14)
		return false;
	uint16_t ethertype = be16(f + 12);
	f += 14;
	n -= 14;
	if (ethertype == 0x0800) {
		if (n < 20 || (f[0] >> 4) != 4)
			return false;
		size_t ihl = (f[0] & 0x0f) * 4u, total = be16(f + 2);
		if (total > n || ihl < 20 || total < ihl)
			return false;
		proto = f[9];
		l4 = f + ihl;
		l4len = total - ihl;
		seg->ipv6 = false;
	} else if (ethertype == 0x86dd) {
		if (n < 40 || 40u + be16(f + 4) > n)
			return false;
		proto = f[6];  // the captures carry no extension headers
		l4 = f + 40;
		l4len = be16(f + 4);
		seg->ipv6 = true;
	} else {
		return false;
	}

	if (proto == 17) {
		if (l4len < 8 || be16(l4 + 4) < 8 || be16(l4 + 4) > l4len)
			return false;
		seg->udp = true;
		seg->payload.assign(l4 + 8, l4 + be16(l4 + 4));
	} else if (proto == 6) {
		if (l4len < 20 || (l4[12] >> 4) * 4u > l4len)
			return false;
		seg->udp = false;
		seg->payload.assign(l4 + (l4[12] >> 4) * 4u, l4 + l4len);
	} else {
		return false;
	}
	seg->sport = be16(l4);
	seg->dport = be16(l4 + 2);
	return true;
}

std::vector<CapturedSegment> read_capture(const std::string &path)
{
	std::vector<CapturedSegment> out;
	std::ifstream in(path, std::ios::binary);
	std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

	if (b.size() < 24 || le32(&b[0]) != 0xa1b2c3d4 || le32(&b[20]) != 1)
		return out;
	size_t pos = 24;
	for (int frame = 1; pos + 16 <= b.size(); frame++) {
		size_t caplen = le32(&b[pos + 8]);
		pos += 16;
		if (pos + caplen > b.size())
			break;
		CapturedSegment seg{};
		seg.frame = frame;
		if (parse_frame(&b[pos], caplen, &seg))
			out.push_back(seg);
		pos += caplen;
	}
	return out;
}

bool have_tshark()
{
	return system("tshark --version >/dev/null 2>&1") == 0;
}

std::vector<std::vector<std::string>> tshark_fields(const std::string &path, const std::string &filter,
						    const std::vector<std::string> &fields, bool *ok)
{
	std::vector<std::vector<std::string>> rows;
	std::string cmd = "tshark -n -r '" + path + "' -Y '" + filter + "' -T fields -E separator=/t";
	for (const auto &f : fields)
		cmd += " -e " + f;
	cmd += " 2>/dev/null";

	FILE *p = popen(cmd.c_str(), "r");
	*ok = p != nullptr;
	if (!p)
		return rows;
	std::string text;
	char chunk[4096];
	size_t got;
	while ((got = fread(chunk, 1, sizeof(chunk), p)) > 0)
		text.append(chunk, got);
	*ok = pclose(p) == 0;

	std::istringstream lines(text);
	std::string line;
	while (std::getline(lines, line)) {
		std::vector<std::string> row;
		size_t start = 0, tab;
		while ((tab = line.find('\t', start)) != std::string::npos) {
			row.push_back(line.substr(start, tab - start));
			start = tab + 1;
		}
		row.push_back(line.substr(start));
		rows.push_back(row);
	}
	return rows;
}
