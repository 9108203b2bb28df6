// Time-block list: MAC hash chains guarded by disabling bottom halves.
#include "lists/tblock.h"

#include "linux/errno.h"
#include "linux/interrupt.h"
#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "lists/tblock_proc.h"

struct tblk_entry **g_tblk_t;

static void tblk_link(struct tblk_entry *e, struct tblk_entry **head)
{
	e->next = *head;
	if (e->next)
		e->next->pprev = &e->next;
	e->pprev = head;
	*head = e;
}

// Drops the list's reference; the caller holds bottom halves off.
static void tblk_unlink(struct tblk_entry *e)
{
	*e->pprev = e->next;
	if (e->next)
		e->next->pprev = e->pprev;
	e->next = NULL;
	e->pprev = NULL;
	tblk_free(e);
}

void tblk_free(struct tblk_entry *e)
{
	if (atomic_dec_and_test(&e->refcnt))
		kfree(e);
}

struct tblk_entry *tblk_get(const u8 *mac)
{
	struct tblk_entry *e;

	local_bh_disable();
	if (!g_tblk_t) {
		local_bh_enable();
		return NULL;
	}
	for (e = g_tblk_t[mac_hash(mac, TBLK_HASH_SIZE)]; e; e = e->next) {
		if (!memcmp(e->mac, mac, ETH_ALEN)) {
			atomic_inc(&e->refcnt);
			break;
		}
	}
	local_bh_enable();
	return e;
}

int tblk_insert(const u8 *mac)
{
	struct tblk_entry *e;

	local_bh_disable();
	if (!g_tblk_t) {
		local_bh_enable();
		return -ENOMEM;
	}
	e = (struct tblk_entry *)kmalloc(sizeof(*e), GFP_ATOMIC);
	if (!e) {
		local_bh_enable();
		return -ENOMEM;
	}
	memcpy(e->mac, mac, ETH_ALEN);
	printk("<7>[%s]: Add: [%02x:%02x:%02x:%02x:%02x:%02x]\n", "tblk_insert",
	       mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	atomic_set(&e->refcnt, 1);
	tblk_link(e, &g_tblk_t[mac_hash(mac, TBLK_HASH_SIZE)]);
	local_bh_enable();
	return 0;
}

void tblk_delete(struct tblk_entry *e)
{
	if (!e)
		return;
	local_bh_disable();
	tblk_unlink(e);
	local_bh_enable();
}

// Every bucket, not only the MAC's own: duplicates anywhere go too.
void tblk_delete_by_mac(const u8 *mac)
{
	struct tblk_entry *e, *next;
	int i;

	local_bh_disable();
	for (i = 0; g_tblk_t && i < TBLK_HASH_SIZE; i++) {
		for (e = g_tblk_t[i]; e; e = next) {
			next = e->next;
			if (memcmp(e->mac, mac, ETH_ALEN))
				continue;
			printk("<7>[%s]: Delete: [%02x:%02x:%02x:%02x:%02x:%02x]\n", "tblk_delete_by_mac",
			       mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
			tblk_unlink(e);
		}
	}
	local_bh_enable();
}

void tblk_flush(void)
{
	struct tblk_entry *e, *next;
	int i;

	local_bh_disable();
	for (i = 0; g_tblk_t && i < TBLK_HASH_SIZE; i++) {
		for (e = g_tblk_t[i]; e; e = next) {
			next = e->next;
			printk("<7>[%s]: Clear: [%02x:%02x:%02x:%02x:%02x:%02x]\n", "tblk_flush",
			       e->mac[0], e->mac[1], e->mac[2], e->mac[3], e->mac[4], e->mac[5]);
			tblk_unlink(e);
		}
	}
	local_bh_enable();
}

int tblock_init(void)
{
	g_tblk_t = (struct tblk_entry **)kmalloc(TBLK_HASH_SIZE * sizeof(*g_tblk_t), GFP_ATOMIC);
	if (!g_tblk_t)
		return -ENOMEM;
	memset(g_tblk_t, 0, TBLK_HASH_SIZE * sizeof(*g_tblk_t));
	// A missing control file leaves the array in place.
	if (tblk_create_proc_entry())
		return -ENOMEM;
	return 0;
}

void tblock_fini(void)
{
	tblk_remove_proc_entry();
	tblk_flush();
	kfree(g_tblk_t);
	g_tblk_t = NULL;
}
