#pragma once
// Time-block list (g_tblk_t): devices whose web traffic is blocked outright,
// keyed by MAC, filled through the control file "tblock_proc".
#include "linux/atomic.h"
#include "linux/types.h"
#include "lists/mac_addr.h"

#define TBLK_HASH_SIZE 64

struct tblk_entry {
	struct tblk_entry *next;
	struct tblk_entry **pprev;
	atomic_t refcnt;
	u8 mac[ETH_ALEN];
};

// TBLK_HASH_SIZE chain heads; the list holds one reference per linked entry.
extern struct tblk_entry **g_tblk_t;

// Returns the entry with a reference for the caller, or NULL. No caller in
// the filter gives that reference back, so a looked-up entry outlives its
// deletion.
struct tblk_entry *tblk_get(const u8 *mac);
int tblk_insert(const u8 *mac);
void tblk_delete(struct tblk_entry *e);
void tblk_delete_by_mac(const u8 *mac);
void tblk_flush(void);
void tblk_free(struct tblk_entry *e);

int tblock_init(void);
void tblock_fini(void);
