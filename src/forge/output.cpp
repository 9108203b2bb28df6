// Link-layer output of forged packets: the route's header cache, else its
// neighbour.
#include "forge/output.h"

#include "linux/errno.h"
#include "linux/interrupt.h"
#include "linux/kernel.h"
#include "linux/net.h"
#include "linux/netdevice.h"
#include "net/dst.h"
#include "net/neighbour.h"

int output_packet(struct sk_buff *skb)
{
	struct dst_entry *dst = skb_dst(skb);

	if (dst && dst->hh) {
		struct hh_cache *hh = dst->hh;

		// The cached header is copied as one aligned block in front of the data.
		if (skb_headroom(skb) < HH_DATA_MOD) {
			kfree_skb(skb);
			return -ENOMEM;
		}
		local_bh_disable();
		memcpy(skb->data - HH_DATA_MOD, hh->hh_data, HH_DATA_MOD);
		local_bh_enable();
		skb_push(skb, hh->hh_len);
		return hh->hh_output(skb);
	}
	if (dst && dst->neighbour)
		return dst->neighbour->output(skb);

	if (net_ratelimit())
		printk(KERN_DEBUG "[%s]: No header cache and no neighbour, output failed!\n\n", __func__);
	kfree_skb(skb);
	return -EINVAL;
}
