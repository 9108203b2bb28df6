// libFuzzer target for the two list control files, "tblock_proc" and
// "unblock_proc", mixed with the look-ups the packet hooks make.
//
// Each input is a script of operations (see run_script). The model is reset
// for every input, so the lists never grow beyond what one input can add.
// After each operation the lists are walked and checked: chain links and
// buckets, reference counts, no group or zero MAC listed, URL fields
// terminated and formed as the file stores them, bottom halves balanced,
// and every live allocation accounted for (the two bucket arrays, the
// linked entries, and unlinked entries that a look-up still holds).
// At the end the lists are torn down and the held entries freed here, so
// LeakSanitizer sees only what the filter lost.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cstddef>
#include <map>

#include "kmodel/host.h"
#include "linux/errno.h"
#include "linux/slab.h"
#include "lists/tblock.h"
#include "lists/unblock.h"

namespace {

// Every entry seen linked in this input, with its reference count as last
// seen; held marks an entry found unlinked but allocated (a caller's).
struct seen {
	int refs;
	bool held;
};
std::map<const void *, seen> g_seen;

static_assert(offsetof(tblk_entry, pprev) == offsetof(ublk_entry, pprev));
static_assert(offsetof(tblk_entry, refcnt) == offsetof(ublk_entry, refcnt));

// Both entry kinds begin with their chain links and count.
const tblk_entry *head(const void *p)
{
	return (const tblk_entry *)p;
}

bool mac_ok(const u8 *m)
{
	return !(m[0] & 1) && (m[0] | m[1] | m[2] | m[3] | m[4] | m[5]);
}

long walk_tblock(void)
{
	long n = 0;
	for (int i = 0; i < TBLK_HASH_SIZE; i++) {
		tblk_entry **link = &g_tblk_t[i];
		for (tblk_entry *e = *link; e; link = &e->next, e = e->next) {
			if (e->pprev != link || mac_hash(e->mac, TBLK_HASH_SIZE) != (unsigned)i)
				abort();
			if (atomic_read(&e->refcnt) < 1 || !mac_ok(e->mac) || !kmodel_is_live(e))
				abort();
			g_seen[e] = seen{ atomic_read(&e->refcnt), false };
			n++;
		}
	}
	return n;
}

long walk_unblock(void)
{
	long n = 0;
	for (int i = 0; i < UBLK_HASH_SIZE; i++) {
		ublk_entry **link = &g_ublk_t[i];
		for (ublk_entry *e = *link; e; link = &e->next, e = e->next) {
			if (e->pprev != link || mac_hash(e->mac, UBLK_HASH_SIZE) != (unsigned)i)
				abort();
			if (atomic_read(&e->refcnt) < 1 || !mac_ok(e->mac) || !kmodel_is_live(e))
				abort();
			if (e->url[UBLK_URL_LEN - 1] != '\0' || e->has_url > 1)
				abort();
			// Written only by "+": a URL starts at its "|", a device has none.
			if (e->has_url ? e->url[0] != '|' : e->url[0] != '\0')
				abort();
			g_seen[e] = seen{ atomic_read(&e->refcnt), false };
			n++;
		}
	}
	return n;
}

// An entry that leaves the list while a caller holds a reference stays
// allocated with that count for good (nobody can reach it to drop it); one
// that was referenced only by the list may be freed.
void check(void)
{
	if (kmodel_bh_depth() != 0)
		abort();
	long listed = walk_tblock() + walk_unblock();
	long held = 0;
	for (auto it = g_seen.begin(); it != g_seen.end();) {
		const void *p = it->first;
		seen &s = it->second;
		bool live = kmodel_is_live(p);
		if (live && head(p)->pprev) {
			++it;
			continue;
		}
		if (!live) {
			if (s.held || s.refs > 1)
				abort();
			it = g_seen.erase(it);
			continue;
		}
		int refs = atomic_read(&head(p)->refcnt);
		if (refs < 1 || (s.held && refs != s.refs))
			abort();
		s = seen{ refs, true };
		held++;
		++it;
	}
	if (kmodel_alloc_stats_get().live_blocks != 2 + listed + held)
		abort();
}

void write(const char *file, const uint8_t *text, size_t len, bool bad)
{
	int ret = kmodel_proc_write(file, text, len, bad);
	// Text behind a NUL: the command is refused whole.
	bool cut = false;
	for (size_t i = 1; i < len && !cut; i++)
		cut = text[i] && memchr(text, 0, i);
	if (ret != -EFAULT && ret != -EINVAL && ret != (int)len)
		abort();
	if (((bad && len) || len >= 300) && ret != -EFAULT)
		abort();
	if ((ret == -EINVAL) != (cut && !bad && len < 300))
		abort();
}

// Operations, one leading byte each (low 3 bits select):
//   0 tblock write, 1 and 2 unblock write: a length byte (plus 200 with bit
//     3 set, so writes of 300 bytes and more occur), then that many bytes;
//   3 write from a bad address: bit 3 picks the file, a count byte follows;
//   4 time passes: a byte times 8192 ticks;
//   5 a hook's exemption check on the next 6 bytes: ublk_get, and
//     ublk_delete when expired;
//   6 a hook's time-block check: tblk_get, reference kept;
//   7 ublk_flush of expired entries, or the DNS hooks' flag reset (bit 3).
void run_script(const uint8_t *data, size_t size)
{
	size_t pos = 0;
	while (pos < size) {
		uint8_t op = data[pos++];
		size_t rest = size - pos;
		switch (op & 7) {
		case 0:
		case 1:
		case 2: {
			if (!rest)
				return;
			size_t len = data[pos++] + ((op & 8) ? 200 : 0);
			if (len > size - pos)
				len = size - pos;
			write((op & 7) == 0 ? "tblock_proc" : "unblock_proc", data + pos, len, false);
			pos += len;
			break;
		}
		case 3: {
			static const uint8_t unused[256] = {};
			if (!rest)
				return;
			write((op & 8) ? "unblock_proc" : "tblock_proc", unused, data[pos++], true);
			break;
		}
		case 4:
			if (!rest)
				return;
			kmodel_advance_jiffies((u32)data[pos++] * 8192);
			break;
		case 5:
		case 6: {
			u8 mac[6] = {};
			memcpy(mac, data + pos, rest < 6 ? rest : 6);
			pos += rest < 6 ? rest : 6;
			if ((op & 7) == 6) {
				tblk_entry *t = tblk_get(mac);
				if (t && atomic_read(&t->refcnt) != g_seen[t].refs + 1)
					abort(); // the caller's reference
				break;
			}
			int expired = 0;
			ublk_entry *e = ublk_get(mac, &expired);
			if (e && (expired != has_expired(e) || atomic_read(&e->refcnt) != g_seen[e].refs + 1))
				abort();
			if (e && expired)
				ublk_delete(e);
			break;
		}
		case 7:
			if (op & 8) {
				if (get_flush_supending())
					set_flush_supending(0);
			} else {
				ublk_flush(1);
			}
			break;
		}
		check();
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	kmodel_reset();
	g_seen.clear();
	if (tblock_init() || unblock_init())
		abort();
	kmodel_log_clear();
	run_script(data, size);
	check();
	unblock_fini();
	tblock_fini();
	for (auto &[p, s] : g_seen)
		if (kmodel_is_live(p))
			kfree(p); // entries a look-up still held
	if (kmodel_alloc_stats_get().live_blocks != 0 || kmodel_bh_depth() != 0)
		abort();
	return 0;
}
