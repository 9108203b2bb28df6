// Unblock list: MAC hash chains guarded by disabling bottom halves. Expiry
// is only noticed by whoever looks an entry up; nothing sweeps the list.
#include "lists/unblock.h"

#include "linux/errno.h"
#include "linux/interrupt.h"
#include "linux/jiffies.h"
#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "lists/unblock_proc.h"

struct ublk_entry **g_ublk_t;
static int flush_supending;

static int ublk_expired(const struct ublk_entry *e)
{
	return time_after_eq(jiffies, e->stamp + UBLK_EXPIRE_TICKS);
}

static void ublk_link(struct ublk_entry *e, struct ublk_entry **head)
{
	e->next = *head;
	if (e->next)
		e->next->pprev = &e->next;
	e->pprev = head;
	*head = e;
}

// Drops the list's reference; the caller holds bottom halves off.
static void ublk_unlink(struct ublk_entry *e)
{
	*e->pprev = e->next;
	if (e->next)
		e->next->pprev = e->pprev;
	e->next = NULL;
	e->pprev = NULL;
	ublk_free(e);
}

// The look-ups: the first entry of the MAC's chain that matches.
static struct ublk_entry *ublk_lookup(const u8 *mac, const char *url, int *expired)
{
	struct ublk_entry *e;

	local_bh_disable();
	if (!g_ublk_t) {
		local_bh_enable();
		return NULL;
	}
	for (e = g_ublk_t[mac_hash(mac, UBLK_HASH_SIZE)]; e; e = e->next) {
		if (memcmp(e->mac, mac, ETH_ALEN))
			continue;
		if (url ? strcasecmp(e->url, url) == 0 : e->has_url == 0)
			break;
	}
	if (e) {
		*expired = ublk_expired(e);
		atomic_inc(&e->refcnt);
	}
	local_bh_enable();
	return e;
}

int has_expired(const struct ublk_entry *e)
{
	return ublk_expired(e);
}

void ublk_free(struct ublk_entry *e)
{
	if (atomic_dec_and_test(&e->refcnt))
		kfree(e);
}

struct ublk_entry *ublk_get(const u8 *mac, int *expired)
{
	return ublk_lookup(mac, NULL, expired);
}

struct ublk_entry *ublk_get_with_url(const u8 *mac, const char *url, int *expired)
{
	return ublk_lookup(mac, url, expired);
}

int ublk_insert(const u8 *mac, const char *url, int has_url)
{
	struct ublk_entry *e;

	local_bh_disable();
	if (!g_ublk_t) {
		local_bh_enable();
		return -ENOMEM;
	}
	e = (struct ublk_entry *)kmalloc(sizeof(*e), GFP_ATOMIC);
	if (!e) {
		local_bh_enable();
		return -ENOMEM;
	}
	memcpy(e->mac, mac, ETH_ALEN);
	// strncpy stops at the URL's end and pads, so a short argument is never
	// read past; the last byte always terminates.
	memset(e->url, 0, sizeof(e->url));
	if (has_url)
		strncpy(e->url, url, UBLK_URL_LEN - 1);
	e->has_url = (u8)has_url;
	atomic_set(&e->refcnt, 1);
	e->stamp = jiffies;
	ublk_link(e, &g_ublk_t[mac_hash(mac, UBLK_HASH_SIZE)]);
	local_bh_enable();
	return 0;
}

void ublk_delete(struct ublk_entry *e)
{
	if (!e)
		return;
	local_bh_disable();
	ublk_unlink(e);
	local_bh_enable();
}

void ublk_delete_by_mac(const u8 *mac)
{
	struct ublk_entry *e, *next;
	int i;

	local_bh_disable();
	for (i = 0; g_ublk_t && i < UBLK_HASH_SIZE; i++) {
		for (e = g_ublk_t[i]; e; e = next) {
			next = e->next;
			if (!memcmp(e->mac, mac, ETH_ALEN))
				ublk_unlink(e);
		}
	}
	local_bh_enable();
}

// Stored URLs are zero-padded to their full field, so comparing up to the
// first NUL equals comparing the padded field.
void ublk_delete_by_url(const char *url)
{
	struct ublk_entry *e, *next;
	int i;

	local_bh_disable();
	for (i = 0; g_ublk_t && i < UBLK_HASH_SIZE; i++) {
		for (e = g_ublk_t[i]; e; e = next) {
			next = e->next;
			if (!strncmp(e->url, url, UBLK_URL_LEN - 1))
				ublk_unlink(e);
		}
	}
	local_bh_enable();
}

void ublk_flush(int expired_only)
{
	struct ublk_entry *e, *next;
	int i;

	local_bh_disable();
	for (i = 0; g_ublk_t && i < UBLK_HASH_SIZE; i++) {
		for (e = g_ublk_t[i]; e; e = next) {
			next = e->next;
			if (!expired_only || ublk_expired(e))
				ublk_unlink(e);
		}
	}
	local_bh_enable();
}

void set_flush_supending(int value)
{
	local_bh_disable();
	flush_supending = value;
	local_bh_enable();
}

int get_flush_supending(void)
{
	int value;

	local_bh_disable();
	value = flush_supending;
	local_bh_enable();
	return value;
}

int unblock_init(void)
{
	flush_supending = 0;
	g_ublk_t = (struct ublk_entry **)kmalloc(UBLK_HASH_SIZE * sizeof(*g_ublk_t), GFP_ATOMIC);
	if (!g_ublk_t)
		return -ENOMEM;
	memset(g_ublk_t, 0, UBLK_HASH_SIZE * sizeof(*g_ublk_t));
	// A missing control file leaves the array in place.
	if (tm_create_proc_entry())
		return -ENOMEM;
	return 0;
}

void unblock_fini(void)
{
	tm_remove_proc_entry();
	ublk_flush(0);
	kfree(g_ublk_t);
	g_ublk_t = NULL;
}
