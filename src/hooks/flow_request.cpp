// Rating requests of the flow hooks.
#include "hooks/flow_request.h"

#include "core/channel.h"
#include "linux/slab.h"
#include "linux/string.h"

#define FLOW_HOST_MAX 255

struct rating_request *flow_request_alloc(u32 service, const char *url, const char *host)
{
	struct rating_request *req;
	struct http_info info;

	memset(&info, 0, sizeof(info));
	strncpy(info.url, url, FLOW_HOST_MAX);
	memcpy(info.host, host, FLOW_HOST_MAX);
	info.host[FLOW_HOST_MAX] = 0;

	req = (struct rating_request *)kmalloc(sizeof(*req), GFP_ATOMIC);
	if (!req)
		return NULL;
	memset(req, 0, sizeof(*req));
	req->kind = RATING_KIND_REQUEST;
	req->service = service;
	memcpy(&req->info, &info, sizeof(info));
	return req;
}

void flow_request_send(struct rating_request *req)
{
	send_to_user(0, req, sizeof(*req));
	kfree(req);
}
