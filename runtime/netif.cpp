// The host's interfaces through system calls (see netif.h).
#include "runtime/netif.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace dnshookd {

std::string netif_name(int ifindex)
{
	char name[IF_NAMESIZE] = {};
	if (ifindex <= 0 || !if_indextoname((unsigned)ifindex, name))
		return "";
	return name;
}

bool netif_mac(const std::string &name, uint8_t mac[6])
{
	Fd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	ifreq ifr{};
	if (!s || name.size() >= sizeof(ifr.ifr_name))
		return false;
	memcpy(ifr.ifr_name, name.c_str(), name.size());
	if (ioctl(s.get(), SIOCGIFHWADDR, &ifr) < 0)
		return false;
	memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
	return true;
}

Fd netif_packet_socket(void)
{
	return Fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

int netif_send(const Fd &sock, int ifindex, uint16_t protocol_be, const uint8_t *frame, size_t len)
{
	sockaddr_ll to{};
	to.sll_family = AF_PACKET;
	to.sll_ifindex = ifindex;
	to.sll_protocol = protocol_be;
	to.sll_halen = 6;
	if (len >= 6)
		memcpy(to.sll_addr, frame, 6);
	if (sendto(sock.get(), frame, len, 0, (const sockaddr *)&to, sizeof(to)) < 0)
		return -errno;
	return 0;
}

} // namespace dnshookd
