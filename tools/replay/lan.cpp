// LAN prefixes and the side of an address (see lan.h).
#include "tools/replay/lan.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace replay {

const char *side_name(Side s)
{
	switch (s) {
	case Side::br0:
		return "br0";
	case Side::br1:
		return "br1";
	default:
		return "eth0";
	}
}

bool Prefix::contains(bool family_v6, const uint8_t *a) const
{
	if (family_v6 != v6)
		return false;
	int bytes = len / 8, bits = len % 8;
	if (memcmp(a, addr.data(), bytes) != 0)
		return false;
	if (bits == 0)
		return true;
	uint8_t mask = uint8_t(0xff << (8 - bits));
	return (a[bytes] & mask) == (addr[bytes] & mask);
}

bool parse_prefix(const std::string &text, Prefix *out)
{
	Prefix p;
	p.text = text;
	size_t slash = text.find('/');
	std::string a = text.substr(0, slash);
	p.v6 = a.find(':') != std::string::npos;
	if (inet_pton(p.v6 ? AF_INET6 : AF_INET, a.c_str(), p.addr.data()) != 1)
		return false;
	int max = p.v6 ? 128 : 32;
	p.len = max;
	if (slash != std::string::npos) {
		std::string l = text.substr(slash + 1);
		if (l.empty() || l.size() > 3 || l.find_first_not_of("0123456789") != std::string::npos)
			return false;
		p.len = std::stoi(l);
		if (p.len > max)
			return false;
	}
	*out = p;
	return true;
}

bool parse_mac(const std::string &text, Mac *out)
{
	unsigned b[6];
	char tail;
	if (text.size() != 17 ||
	    sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) != 6)
		return false;
	for (int i = 0; i < 6; i++)
		(*out)[i] = uint8_t(b[i]);
	return true;
}

std::string mac_text(const Mac &m)
{
	char s[18];
	snprintf(s, sizeof(s), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
	return s;
}

LanMap::LanMap(std::vector<Prefix> br0, std::vector<Prefix> br1) : br0_(std::move(br0)), br1_(std::move(br1))
{
	if (!br0_.empty())
		return;
	for (const char *d : {"10.0.0.0/8", "172.16.0.0/12", "192.168.0.0/16", "fc00::/7"}) {
		Prefix p;
		parse_prefix(d, &p);
		br0_.push_back(p);
	}
}

Side LanMap::side(bool v6, const uint8_t *addr) const
{
	Side best = Side::wan;
	int best_len = -1;
	for (Side s : {Side::br0, Side::br1})
		for (const Prefix &p : s == Side::br0 ? br0_ : br1_)
			if (p.len > best_len && p.contains(v6, addr)) {
				best = s;
				best_len = p.len;
			}
	return best;
}

} // namespace replay
