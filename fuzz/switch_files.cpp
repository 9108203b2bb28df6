// libFuzzer target for the four control files of the loaded filter: the
// two switch files (wl_warning_page, pcg_proc) and the two list files
// (tblock_proc, unblock_proc), with traffic between the writes.
//
// Input: steps of [ctl] [count] [bytes...]. ctl & 3 names the file, 0x04
// passes an address no process owns, 0x08 makes the next hook
// registration fail, 0x10 sends an HTTP and a DNS packet of a client
// whose MAC the input's first bytes give, 0x20 moves the clock by count
// minutes; the write carries `count` bytes (fewer at the input's end).
//
// After each step: a switch file's write returns its count or -EFAULT and
// nothing else; each hook is registered at most once; a service's flag
// is set only with both of its hooks registered; bottom halves are
// enabled. After unload no file is left, and no hook unless a registration
// failed (a half-made pair is not undone).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/hook_registry.h"
#include "fuzz/populate.h"
#include "kmodel/host.h"
#include "linux/errno.h"
#include "linux/netfilter.h"

namespace {

const char *const kFiles[] = {"wl_warning_page", "pcg_proc", "tblock_proc", "unblock_proc"};

int registrations(const struct nf_hook_ops *ops)
{
	int n = 0;
	for (const nf_hook_ops *o : kmodel_nf_hooks(ops->pf, ops->hooknum))
		n += o == ops;
	return n;
}

void check(void)
{
	const struct nf_hook_ops *all[] = {&hook_ops, &hook_ops6, &dns_hook_ops, &dns6_hook_ops,
					   &pct_hook_ops, &pct6_hook_ops, &https_hook_ops, &https6_hook_ops};
	for (const struct nf_hook_ops *ops : all)
		if (registrations(ops) > 1)
			abort();
	if (wp_enabled && (!registrations(&pct_hook_ops) || !registrations(&pct6_hook_ops)))
		abort();
	if (pc_enabled && (!registrations(&https_hook_ops) || !registrations(&https6_hook_ops)))
		abort();
	if (kmodel_bh_depth() != 0)
		abort();
}

void traffic(sim::Router &r, const uint8_t *data, size_t size)
{
	sim::Mac mac = sim::kClientMac;
	for (size_t i = 0; i < mac.size() && i < size; i++)
		mac[i] = data[i];
	r.forward(fuzz::l4(false, fuzz::kClient, fuzz::kServer, 40000, 80, sim::SYN, 1, 0, ""), r.br0(), r.wan(),
		  mac);
	r.forward(fuzz::l4(false, fuzz::kClient6, fuzz::kServer6, 40000, 80, sim::SYN, 1, 0, ""), r.br0(),
		  r.wan(), mac);
	r.forward(fuzz::l4(false, fuzz::kClient, fuzz::kFlow, 41000, 443, sim::ACK, 1, 1, "x"), r.br0(), r.wan(),
		  mac);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	{
		sim::Router r;
		if (!fuzz::boot(r, 0))
			abort();
		size_t pos = 0;
		bool failed = false;
		while (pos + 2 <= size) {
			uint8_t ctl = data[pos];
			size_t count = data[pos + 1];
			pos += 2;
			size_t n = std::min(count, size - pos);
			const char *file = kFiles[ctl & 3];
			if (ctl & 0x08)
				kmodel_fail_nf_register_nth(1, -EBUSY), failed = true;
			int ret = kmodel_proc_write(file, data + pos, n, ctl & 0x04);
			kmodel_fail_nf_register_nth(0, 0);
			if ((ctl & 3) < 2 && ret != (int)n && ret != -EFAULT)
				abort();
			if (ctl & 0x10)
				traffic(r, data + pos, n);
			if (ctl & 0x20)
				r.advance(count * 60u * 1000u);
			pos += n;
			check();
		}
		r.unload();
		for (const char *f : kFiles)
			if (kmodel_proc_exists(f))
				abort();
		for (int pf : {2, 10})
			for (unsigned h = 0; h < 5 && !failed; h++)
				if (!kmodel_nf_hooks(pf, h).empty())
					abort();
	}
	kmodel_free_all();
	kmodel_reset();
	return 0;
}
