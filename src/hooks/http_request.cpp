// Rating requests of HTTP connections.
#include "hooks/http_request.h"

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
