#include "capture.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

static uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
static uint32_t le32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24; }

static bool parse_frame(const uint8_t *f, size_t n, CapturedSegment *seg)
{
	size_t l3len, l4off, l4len;
	int proto;

	if (n < 14 + 40)
		return false;
	f += 14;
	n -= 14;
	if (be16(f - 2) == 0x0800 && (f[0] >> 4) == 4) {
		l3len = be16(f + 2);
		l4off = (f[0] & 0x0f) * 4u;
		proto = f[9];
	} else if (be16(f - 2) == 0x86dd) {
		l3len = 40u + be16(f + 4);
		l4off = 40;  // the captures carry no extension headers
		proto = f[6];
	} else {
		return false;
	}
	if (l3len > n || l4off + 20 > l3len)
		return false;
	const uint8_t *l4 = f + l4off;
	l4len = l3len - l4off;
	if (proto == 17 && be16(l4 + 4) >= 8 && be16(l4 + 4) <= l4len)
		seg->payload.assign(l4 + 8, l4 + be16(l4 + 4));
	else if (proto == 6 && (l4[12] >> 4) * 4u <= l4len)
		seg->payload.assign(l4 + (l4[12] >> 4) * 4u, l4 + l4len);
	else
		return false;
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
	for (size_t pos = 24, frame = 1; pos + 16 <= b.size(); frame++) {
		size_t caplen = le32(&b[pos + 8]);
		pos += 16;
		if (pos + caplen > b.size())
			break;
		CapturedSegment seg{ (int)frame, 0, 0, {} };
		if (parse_frame(&b[pos], caplen, &seg))
			out.push_back(seg);
		pos += caplen;
	}
	return out;
}

std::vector<std::vector<std::string>> tshark_fields(const std::string &path, const std::string &filter,
						    const std::vector<std::string> &fields, bool *ok)
{
	std::vector<std::vector<std::string>> rows;
	std::string cmd = "tshark -n -r '" + path + "' -Y '" + filter + "' -T fields -E separator=/t";
	for (const auto &f : fields)
		cmd += " -e " + f;
	FILE *p = popen((cmd + " 2>/dev/null").c_str(), "r");
	if (!p) {
		*ok = false;
		return rows;
	}
	std::string text;
	char chunk[4096];
	for (size_t got; (got = fread(chunk, 1, sizeof(chunk), p)) > 0;)
		text.append(chunk, got);
	*ok = pclose(p) == 0;

	std::istringstream lines(text);
	for (std::string line; std::getline(lines, line);) {
		std::vector<std::string> row;
		std::istringstream cells(line);
		for (std::string cell; std::getline(cells, cell, '\t');)
			row.push_back(cell);
		row.resize(fields.size());  // trailing empty fields
		rows.push_back(row);
	}
	return rows;
}
