#pragma once
// The host's interfaces through system calls only (no model headers):
// names and MACs, and an AF_PACKET socket that sends finished frames.
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/fd.h"

namespace dnshookd {

// The name of an interface index; "" when there is none.
std::string netif_name(int ifindex);
// The interface's hardware address; false when it has none.
bool netif_mac(const std::string &name, uint8_t mac[6]);
// A send-only packet socket (it receives nothing).
Fd netif_packet_socket(void);
// Sends a whole frame (link-layer header included) on the interface;
// 0 or a negative errno.
int netif_send(const Fd &sock, int ifindex, uint16_t protocol_be, const uint8_t *frame, size_t len);

} // namespace dnshookd
