// The netlink channel: requests out to group 1, replies in to one handler.
#include "core/channel.h"

#include "core/rating.h"
#include "linux/errno.h"
#include "linux/kernel.h"
#include "linux/module.h"
#include "linux/netlink.h"
#include "linux/skbuff.h"
#include "net/netlink.h"
#include "net/sock.h"

#define NL_UNIT NETLINK_USERSOCK
#define NL_GROUP 1

static struct sock *nl_sock;
static nl_handler_t nl_handler;

int nlink_init(nl_handler_t handler)
{
	nl_handler = handler;
	if (!handler) {
		printk(KERN_ERR "[%s]: No handler interests the netlink socket\n", __func__);
		return -EINVAL;
	}
	nl_sock = netlink_kernel_create(&init_net, NL_UNIT, 0, rcv_from_sk, NULL, THIS_MODULE);
	if (!nl_sock) {
		printk(KERN_ERR "[%s]: netlink socket create failed\n", __func__);
		return -EINVAL;
	}
	return 0;
}

void nlink_fini(void)
{
	// A load whose socket creation failed has nothing to release.
	if (!nl_sock)
		return;
	sock_release(nl_sock->sk_socket);
	nl_sock = NULL;
}

int send_to_user(u16 type, void *data, int len)
{
	struct sk_buff *skb;
	struct nlmsghdr *nlh;
	unsigned int size;

	if (!data) {
		printk(KERN_DEBUG "[%s]: Incoming data is NULL\n", __func__);
		return -1;
	}
	// Requests made while the module is still loading have no socket yet.
	if (!nl_sock || len < 0)
		return -1;

	size = NLMSG_SPACE(len);
	skb = alloc_skb(size, GFP_ATOMIC);
	if (!skb) {
		printk(KERN_DEBUG "[%s]: Unable to allocate skb\n", __func__);
		return -1;
	}
	if ((unsigned int)skb_tailroom(skb) < size) {
		kfree_skb(skb);
		return -1;
	}

	nlh = (struct nlmsghdr *)skb_put(skb, size);
	nlh->nlmsg_len = NLMSG_LENGTH(len);
	nlh->nlmsg_type = type;
	nlh->nlmsg_flags = 0;
	nlh->nlmsg_seq = 0;
	nlh->nlmsg_pid = 0;
	memset((u8 *)nlh + nlh->nlmsg_len, 0, size - nlh->nlmsg_len);
	memcpy(NLMSG_DATA(nlh), data, len);

	NETLINK_CB(skb).pid = 0;
	NETLINK_CB(skb).dst_group = NL_GROUP;
	// No listener is not a failure of ours: the tables time the request out.
	netlink_broadcast(nl_sock, skb, 0, NL_GROUP, GFP_ATOMIC);
	return 0;
}

void rcv_from_sk(struct sk_buff *skb)
{
	struct nlmsghdr hdr, *nlh;
	struct rating_reply padded;
	void *payload;
	int len;

	if (skb->len < (unsigned int)NLMSG_HDRLEN) {
		printk(KERN_DEBUG "[%s]: skb(%d) < nlhdr(%d)\n", "handle_packet", skb->len,
		       NLMSG_HDRLEN);
		return;
	}
	nlh = (struct nlmsghdr *)skb_header_pointer(skb, 0, sizeof(hdr), &hdr);
	if (!nlh || nlh->nlmsg_len < (u32)NLMSG_HDRLEN || nlh->nlmsg_len > skb->len)
		return;
	if (!nl_handler)
		return;

	len = skb->len - NLMSG_HDRLEN;
	// The handler reads a whole reply whatever the daemon sent; a short or
	// scattered one is read from a zero-filled copy, never past the buffer.
	if (skb_headlen(skb) >= NLMSG_HDRLEN + sizeof(padded)) {
		payload = skb->data + NLMSG_HDRLEN;
	} else {
		memset(&padded, 0, sizeof(padded));
		if (skb_copy_bits(skb, NLMSG_HDRLEN, &padded,
				  len < (int)sizeof(padded) ? len : (int)sizeof(padded)))
			return;
		payload = &padded;
	}
	nl_handler(payload, nlh->nlmsg_type, len);
}
