#pragma once
// Netlink for kernel users: the header, the parameters and the sockets.
#include "linux/netlink.h"
#include "net/net_namespace.h"
#include "net/sock.h"

static inline int nlmsg_msg_size(int payload)
{
	return NLMSG_HDRLEN + payload;
}

static inline int nlmsg_total_size(int payload)
{
	return NLMSG_ALIGN(nlmsg_msg_size(payload));
}

static inline void *nlmsg_data(const struct nlmsghdr *nlh)
{
	return (unsigned char *)nlh + NLMSG_HDRLEN;
}
