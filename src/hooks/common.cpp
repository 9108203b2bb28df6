// Helpers shared by the forward hooks.
#include "hooks/common.h"

#include "core/hook_registry.h"
#include "linux/if_ether.h"
#include "linux/kernel.h"
#include "linux/string.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "net/netfilter/nf_conntrack.h"

#define TCP_FLAG_GROUP (TCPHDR_ACK | TCPHDR_SYN | TCPHDR_FIN)

static const u8 no_mac[ETH_ALEN] = {};

static int tcp_flag_group(const struct tcphdr *th)
{
	return tcp_flag_byte(th) & TCP_FLAG_GROUP;
}

int tcp_pure_syn(const struct tcphdr *th)
{
	return tcp_flag_group(th) == TCPHDR_SYN;
}

int tcp_pure_ack(const struct tcphdr *th)
{
	return tcp_flag_group(th) == TCPHDR_ACK;
}

int tcp_fin_ack(const struct tcphdr *th)
{
	return tcp_flag_group(th) == (TCPHDR_ACK | TCPHDR_FIN);
}

const u8 *client_mac(const struct sk_buff *skb)
{
	const unsigned char *mh = skb_mac_header(skb);

	// The source address is bytes 6..11 of the frame's header.
	if (!skb_mac_header_was_set(skb) || mh < skb->head || mh + 2 * ETH_ALEN > skb->tail)
		return no_mac;
	return mh + ETH_ALEN;
}

int is_white_conn(const struct sk_buff *skb)
{
	const struct nf_conn *ct = (const struct nf_conn *)skb->nfct;

	if (!ct) {
		printk(KERN_ERR "[%s]: no conntrack!\n\n", __func__);
		return -1;
	}
	return ct->white_mark ? 1 : 0;
}

int device_exempted(const u8 *mac)
{
	struct ublk_entry *ue;
	int expired = 0;

	ue = ublk_get(mac, &expired);
	if (!ue)
		return 0;
	if (!expired)
		return 1;
	ublk_delete(ue);
	return 0;
}

enum device_verdict check_device(const struct sk_buff *skb)
{
	if (device_exempted(client_mac(skb)))
		return DEVICE_PASS;
	if (!tblk_get(client_mac(skb)))
		return DEVICE_UNLISTED;
	return is_white_conn(skb) > 0 ? DEVICE_PASS : DEVICE_BLOCKED;
}
