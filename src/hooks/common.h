#pragma once
// What the forward hooks share: the service mode, the bridge names, the
// TCP flag tests, the client's MAC and the per-device checks.
#include "core/hook_registry.h"
#include "linux/netdevice.h"
#include "linux/skbuff.h"
#include "linux/tcp.h"
#include "linux/types.h"

// Service mode bits, from the two switch flags.
#define MODE_WP 1
#define MODE_PC 2

// Both run for every packet of every hook, so they are inline.
static inline int service_mode(void)
{
	return (pc_enabled ? MODE_PC : 0) | (wp_enabled ? MODE_WP : 0);
}

// Does the device's name begin with the three characters of name ("br0",
// "br1")? A NULL device never does. strncmp(dev->name, name, 3) == 0,
// byte by byte: equal up to a shared NUL or over all three bytes.
static inline int dev_is(const struct net_device *dev, const char *name)
{
	const char *d;

	if (!dev)
		return 0;
	d = dev->name;
	for (int i = 0; i < 3; i++) {
		if (d[i] != name[i])
			return 0;
		if (!d[i])
			return 1;
	}
	return 1;
}

// The three flag bits ACK, SYN and FIN as a group; other flags are not
// looked at.
int tcp_pure_syn(const struct tcphdr *th);
int tcp_pure_ack(const struct tcphdr *th);
int tcp_fin_ack(const struct tcphdr *th);

// The Ethernet source address of the packet's frame; six zero bytes when
// the frame's header is not inside the buffer.
const u8 *client_mac(const struct sk_buff *skb);

// 1 when the daemon marked the packet's connection white, 0 when not, -1
// (logged) when the packet has no connection-tracking entry.
int is_white_conn(const struct sk_buff *skb);

enum device_verdict {
	DEVICE_PASS,     // exempted, or time-blocked on a white connection
	DEVICE_UNLISTED, // in neither list
	DEVICE_BLOCKED,  // time-blocked (or no conntrack to tell)
};

// Does the device have a live exemption? An expired one is deleted.
int device_exempted(const u8 *mac);

// The unblock list first (an expired exemption is deleted on the way),
// then the time-block list, then the connection's white mark.
enum device_verdict check_device(const struct sk_buff *skb);
