// Conntrack ids out of netlink attributes (see ct_id.h).
#include "runtime/ct_id.h"

#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <memory>

namespace dnshookd {

namespace {
struct CtDeleter {
	void operator()(struct nf_conntrack *ct) const { nfct_destroy(ct); }
};
using CtPtr = std::unique_ptr<struct nf_conntrack, CtDeleter>;

bool take_id(const CtPtr &ct, uint32_t &id)
{
	if (!nfct_attr_is_set(ct.get(), ATTR_ID))
		return false;
	id = nfct_get_attr_u32(ct.get(), ATTR_ID);
	return true;
}
} // namespace

bool ct_id_from_queue_attr(const void *payload, size_t len, uint8_t l3num, uint32_t &id)
{
	CtPtr ct(nfct_new());
	return ct && nfct_payload_parse(payload, len, l3num, ct.get()) >= 0 && take_id(ct, id);
}

bool ct_id_from_event(const struct nlmsghdr *nlh, uint32_t &id)
{
	CtPtr ct(nfct_new());
	return ct && nfct_nlmsg_parse(nlh, ct.get()) >= 0 && take_id(ct, id);
}

} // namespace dnshookd
