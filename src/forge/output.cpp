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

		const u8 *hh_block = (const u8 *)hh->hh_data;
		int room = skb_headroom(skb);

		// The cached header is copied as one aligned block in front of
		// the data. With less room than the block, only its tail, the
		// header itself, is copied: the frame is the same and nothing
		// is written before the buffer. A forged packet is a copy of a
		// received one and keeps the room its own link-layer header took,
		// so it always has the header's length unless the output device's
		// header is longer than that of the device it came in by: then it
		// cannot be framed, and is dropped.
		if (room < (int)hh->hh_len) {
			kfree_skb(skb);
			return -ENOMEM;
		}
		if (room > HH_DATA_MOD)
			room = HH_DATA_MOD;
		local_bh_disable();
		memcpy(skb->data - room, hh_block + HH_DATA_MOD - room, room);
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
