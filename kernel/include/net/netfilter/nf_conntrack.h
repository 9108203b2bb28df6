#pragma once
// Connection-tracking entries, as far as the filter sees them.
#include "linux/skbuff.h"
#include "linux/types.h"

enum ip_conntrack_info {
	IP_CT_ESTABLISHED,
	IP_CT_RELATED,
	IP_CT_NEW,
	IP_CT_IS_REPLY,
	IP_CT_NUMBER = IP_CT_IS_REPLY * 2 - 1
};

enum ip_conntrack_dir {
	IP_CT_DIR_ORIGINAL,
	IP_CT_DIR_REPLY,
	IP_CT_DIR_MAX
};

struct nf_conn {
	// Reference count; must stay first (skb->nfct points here).
	struct nf_conntrack ct_general;
	unsigned long status;
	unsigned long timeout;
	u32 mark;
	// Set to 1 when the rating daemon white-listed the connection.
	u8 white_mark;
};

static inline struct nf_conn *nf_ct_get(const struct sk_buff *skb, enum ip_conntrack_info *ctinfo)
{
	*ctinfo = (enum ip_conntrack_info)skb->nfctinfo;
	return (struct nf_conn *)skb->nfct;
}

static inline void nf_ct_put(struct nf_conn *ct)
{
	nf_conntrack_put(&ct->ct_general);
}
