// Netfilter: per-family, per-hook lists ordered by priority, and the walk
// that the stack makes over them for each packet.
#include <vector>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/kernel.h"
#include "linux/netfilter.h"

namespace {
struct list_head g_hooks[NFPROTO_NUMPROTO][NF_INET_NUMHOOKS];
bool g_ready;
long g_fail_nth;
int g_fail_err;
const nf_hook_ops *g_last_decider; // the hook whose verdict ended the last walk

void ensure_ready(void)
{
	if (g_ready)
		return;
	for (auto &fam : g_hooks)
		for (auto &h : fam)
			INIT_LIST_HEAD(&h);
	g_ready = true;
}

struct list_head *hook_list(int pf, unsigned int hooknum)
{
	BUG_ON(pf < 0 || pf >= NFPROTO_NUMPROTO || hooknum >= NF_INET_NUMHOOKS);
	ensure_ready();
	return &g_hooks[pf][hooknum];
}
}

bool kmodel_nf_registered(const nf_hook_ops *ops)
{
	if (ops->pf >= NFPROTO_NUMPROTO || ops->hooknum >= NF_INET_NUMHOOKS)
		return false;
	struct list_head *head = hook_list(ops->pf, ops->hooknum), *pos;
	list_for_each(pos, head)
		if (pos == &ops->list)
			return true;
	return false;
}

int nf_register_hook(struct nf_hook_ops *reg)
{
	if (g_fail_nth > 0 && --g_fail_nth == 0)
		return g_fail_err;
	struct list_head *head = hook_list(reg->pf, reg->hooknum);
	if (kmodel_nf_registered(reg)) {
		// Linking the same record twice would corrupt the list; a debug
		// kernel warns about it, and so does the model.
		printk("<4>list_add double add: nf_hook_ops %p already registered\n", (void *)reg);
		return 0;
	}
	struct nf_hook_ops *elem;
	list_for_each_entry(elem, head, list) {
		if (reg->priority < elem->priority)
			break;
	}
	list_add_tail(&reg->list, &elem->list); // before elem: same priority keeps order of registration
	return 0;
}

void nf_unregister_hook(struct nf_hook_ops *reg)
{
	if (!kmodel_nf_registered(reg)) {
		printk("<4>list_del corruption: nf_hook_ops %p is not registered\n", (void *)reg);
		return;
	}
	list_del(&reg->list);
}

std::vector<const nf_hook_ops *> kmodel_nf_hooks(int pf, unsigned int hooknum)
{
	std::vector<const nf_hook_ops *> out;
	struct nf_hook_ops *elem;
	list_for_each_entry(elem, hook_list(pf, hooknum), list)
		out.push_back(elem);
	return out;
}

void kmodel_fail_nf_register_nth(long n, int err)
{
	g_fail_nth = n;
	g_fail_err = err;
}

const nf_hook_ops *kmodel_nf_last_decider(void) { return g_last_decider; }

unsigned int kmodel_nf_hook(int pf, unsigned int hooknum, struct sk_buff *skb,
			    const struct net_device *in, const struct net_device *out)
{
	struct list_head *head = hook_list(pf, hooknum);
	g_last_decider = NULL;
	for (struct list_head *pos = head->next; pos != head;) {
		struct nf_hook_ops *elem = list_entry(pos, struct nf_hook_ops, list);
		pos = pos->next; // a hook may unregister itself
		unsigned int verdict = elem->hook(hooknum, skb, in, out, NULL);
		if (verdict == NF_STOP)
			return NF_ACCEPT;
		if (verdict != NF_ACCEPT) {
			g_last_decider = elem;
			return verdict;
		}
	}
	return NF_ACCEPT;
}

void kmodel_netfilter_reset(void)
{
	g_ready = false;
	ensure_ready();
	g_fail_nth = 0;
	g_fail_err = 0;
	g_last_decider = NULL;
}
