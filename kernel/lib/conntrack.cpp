// Connection-tracking entries as plain data made by the host; the last
// reference going calls nf_conntrack_destroy, as in the kernel.
#include <stdlib.h>
#include <unordered_set>
#include <vector>

#include "kmodel/net.h"
#include "kmodel/state.h"
#include "net/netfilter/nf_conntrack.h"

namespace {

std::vector<nf_conn *> g_all; // every entry since reset, destroyed or not
std::unordered_set<const nf_conn *> g_destroyed;

} // namespace

void nf_conntrack_destroy(struct nf_conntrack *nfct)
{
	struct nf_conn *ct = (struct nf_conn *)nfct;

	BUG_ON(atomic_read(&nfct->use) != 0);
	BUG_ON(g_destroyed.count(ct) != 0); // destroyed twice
	g_destroyed.insert(ct);
}

struct nf_conn *kmodel_ct_new(void)
{
	struct nf_conn *ct = (struct nf_conn *)calloc(1, sizeof(*ct));

	BUG_ON(ct == NULL);
	atomic_set(&ct->ct_general.use, 1);
	g_all.push_back(ct);
	return ct;
}

void kmodel_ct_attach(struct sk_buff *skb, struct nf_conn *ct, int ctinfo)
{
	BUG_ON(g_destroyed.count(ct) != 0);
	nf_conntrack_put(skb->nfct);
	nf_conntrack_get(&ct->ct_general);
	skb->nfct = &ct->ct_general;
	skb->nfctinfo = ctinfo;
}

void kmodel_ct_remove(struct nf_conn *ct)
{
	nf_conntrack_put(&ct->ct_general);
}

bool kmodel_ct_destroyed(const struct nf_conn *ct) { return g_destroyed.count(ct) != 0; }
long kmodel_ct_destroy_count(void) { return (long)g_destroyed.size(); }
int kmodel_ct_refs(const struct nf_conn *ct) { return atomic_read(&ct->ct_general.use); }

void kmodel_conntrack_reset(void)
{
	for (nf_conn *ct : g_all)
		free(ct);
	g_all.clear();
	g_destroyed.clear();
}
