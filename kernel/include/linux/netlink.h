#pragma once
// Netlink message header and the per-buffer netlink parameters.
#include <sys/socket.h> // struct ucred
#include "linux/skbuff.h"
#include "linux/types.h"

#define NETLINK_ROUTE 0
#define NETLINK_UNUSED 1
#define NETLINK_USERSOCK 2
#define NETLINK_FIREWALL 3
#define NETLINK_GENERIC 16
#define MAX_LINKS 32

struct sockaddr_nl {
	unsigned short nl_family;
	unsigned short nl_pad;
	u32 nl_pid;
	u32 nl_groups;
};

struct nlmsghdr {
	u32 nlmsg_len;
	u16 nlmsg_type;
	u16 nlmsg_flags;
	u32 nlmsg_seq;
	u32 nlmsg_pid;
};

#define NLM_F_REQUEST 1
#define NLM_F_MULTI 2
#define NLM_F_ACK 4
#define NLM_F_ECHO 8

#define NLMSG_ALIGNTO 4U
#define NLMSG_ALIGN(len) (((len) + NLMSG_ALIGNTO - 1) & ~(NLMSG_ALIGNTO - 1))
#define NLMSG_HDRLEN ((int)NLMSG_ALIGN(sizeof(struct nlmsghdr)))
#define NLMSG_LENGTH(len) ((len) + NLMSG_ALIGN(NLMSG_HDRLEN))
#define NLMSG_SPACE(len) NLMSG_ALIGN(NLMSG_LENGTH(len))
#define NLMSG_DATA(nlh) ((void *)(((char *)nlh) + NLMSG_LENGTH(0)))
#define NLMSG_NEXT(nlh, len) ((len) -= NLMSG_ALIGN((nlh)->nlmsg_len), \
			      (struct nlmsghdr *)(((char *)(nlh)) + NLMSG_ALIGN((nlh)->nlmsg_len)))
#define NLMSG_OK(nlh, len) ((len) >= (int)sizeof(struct nlmsghdr) && \
			    (nlh)->nlmsg_len >= sizeof(struct nlmsghdr) && \
			    (nlh)->nlmsg_len <= (len))
#define NLMSG_PAYLOAD(nlh, len) ((nlh)->nlmsg_len - NLMSG_SPACE((len)))

#define NLMSG_NOOP 0x1
#define NLMSG_ERROR 0x2
#define NLMSG_DONE 0x3
#define NLMSG_OVERRUN 0x4

struct netlink_skb_parms {
	struct ucred creds;
	u32 pid;        // sender's port id
	u32 dst_group;  // destination multicast group
	u32 eff_cap;
	u32 loginuid;
	u32 sessionid;
	u32 sid;
};

#define NETLINK_CB(skb) (*(struct netlink_skb_parms *)&((skb)->cb))

static inline struct nlmsghdr *nlmsg_hdr(const struct sk_buff *skb)
{
	return (struct nlmsghdr *)skb->data;
}

struct net;
struct sock;
struct mutex;
struct module;

// A kernel-side socket of protocol `unit`; input is called for every
// buffer a user-side socket sends to it (the buffer is freed after the
// call). NULL on failure.
struct sock *netlink_kernel_create(struct net *net, int unit, unsigned int groups,
				   void (*input)(struct sk_buff *skb),
				   struct mutex *cb_mutex, struct module *module);
void netlink_kernel_release(struct sock *sk);

// Delivers a copy of skb to every user-side socket of the unit bound to
// `group` (except port `pid`); always consumes skb. 0 when someone got
// it, -ESRCH when no one listens, -ENOBUFS when copies failed.
int netlink_broadcast(struct sock *ssk, struct sk_buff *skb, u32 pid, u32 group, gfp_t allocation);
// Delivers skb to the user-side socket with port id pid; consumes skb.
int netlink_unicast(struct sock *ssk, struct sk_buff *skb, u32 pid, int nonblock);
int netlink_has_listeners(struct sock *sk, unsigned int group);
