#pragma once
// Which side of the router an address lives on: behind one of the two LAN
// bridges or out on the WAN, decided by the LAN prefixes.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace replay {

using Mac = std::array<uint8_t, 6>;

enum class Side { br0, br1, wan };
const char *side_name(Side s); // the router's device: "br0", "br1", "eth0"

struct Prefix {
	bool v6 = false;
	std::array<uint8_t, 16> addr{};
	int len = 0;
	std::string text;
	bool contains(bool v6, const uint8_t *a) const;
};

// "192.168.0.0/16", "fc00::/7", "10.1.2.3" (a host); false on bad text.
bool parse_prefix(const std::string &text, Prefix *out);
// "00:11:22:33:44:55"; false on bad text.
bool parse_mac(const std::string &text, Mac *out);
std::string mac_text(const Mac &m);

class LanMap {
public:
	// Prefixes behind br0 and br1; an empty br0 list means the private
	// IPv4 ranges and fc00::/7.
	LanMap(std::vector<Prefix> br0, std::vector<Prefix> br1);
	// The longest matching prefix decides; nothing matching is the WAN.
	Side side(bool v6, const uint8_t *addr) const;
	const std::vector<Prefix> &br0() const { return br0_; }
	const std::vector<Prefix> &br1() const { return br1_; }

private:
	std::vector<Prefix> br0_, br1_;
};

} // namespace replay
