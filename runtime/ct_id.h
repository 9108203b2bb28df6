#pragma once
// Conntrack ids out of netlink attributes (libnetfilter_conntrack). Kept
// apart from the model's headers, whose struct nf_conntrack is the
// kernel's and not the library's.
#include <cstddef>
#include <cstdint>

struct nlmsghdr;

namespace dnshookd {

// The id in a queued packet's NFQA_CT attribute of family l3num.
bool ct_id_from_queue_attr(const void *payload, size_t len, uint8_t l3num, uint32_t &id);
// The id of the connection a conntrack event message is about.
bool ct_id_from_event(const struct nlmsghdr *nlh, uint32_t &id);

} // namespace dnshookd
