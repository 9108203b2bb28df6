// Rating requests of HTTP connections.
#include "hooks/http_request.h"

#include "core/channel.h"
#include "hooks/common.h"
#include "linux/slab.h"
#include "linux/string.h"

u32 http_rating_service(int mode, const struct net_device *in, const struct net_device *out)
{
	if ((mode & MODE_WP) && !dev_is(in, "br1") && !dev_is(out, "br1"))
		return RATING_WP_REQUEST;
	return RATING_PC_REQUEST;
}

struct rating_request *http_rating_request(int mode, const struct net_device *in,
					   const struct net_device *out, const struct sk_buff *skb,
					   const struct http_info *info)
{
	struct rating_request *req = (struct rating_request *)kmalloc(sizeof(*req), GFP_ATOMIC);

	if (!req)
		return NULL;
	memset(req, 0, sizeof(*req));
	req->kind = RATING_KIND_REQUEST;
	req->service = http_rating_service(mode, in, out);
	memcpy(&req->info, info, sizeof(req->info));
	if (req->service == RATING_PC_REQUEST)
		memcpy(req->mac, client_mac(skb), sizeof(req->mac));
	return req;
}

void http_hold_and_rate(struct tcp_tracking *rec, struct sk_buff *skb, struct rating_request *req)
{
	if (rec->held_skb)
		kfree_skb(rec->held_skb);
	rec->held_skb = skb_copy(skb, GFP_ATOMIC);
	send_to_user(0, req, sizeof(*req));
	tcp_update_state(rec, STATE_RATING);
	kfree(req);
}
