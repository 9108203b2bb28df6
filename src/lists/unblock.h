#pragma once
// Unblock list (g_ublk_t): time-limited exemptions of a device, or of a
// (device, URL) pair, filled through the control file "unblock_proc"; and
// the pending-flush flag that asks the DNS hooks to flush the HTTPS flows.
#include "linux/atomic.h"
#include "linux/types.h"
#include "lists/mac_addr.h"

#define UBLK_HASH_SIZE 256
#define UBLK_URL_LEN 256
#define UBLK_EXPIRE_TICKS 900000

struct ublk_entry {
	struct ublk_entry *next;
	struct ublk_entry **pprev;
	atomic_t refcnt;
	u32 stamp;               // jiffies at insertion
	u8 mac[ETH_ALEN];
	char url[UBLK_URL_LEN];  // zero-padded; empty for a device-wide exemption
	u8 has_url;
};

// UBLK_HASH_SIZE chain heads; the list holds one reference per linked entry.
extern struct ublk_entry **g_ublk_t;

// Both look-ups return the entry with a reference for the caller (never
// given back in the filter) and set *expired only when they find one.
struct ublk_entry *ublk_get(const u8 *mac, int *expired);
struct ublk_entry *ublk_get_with_url(const u8 *mac, const char *url, int *expired);
int ublk_insert(const u8 *mac, const char *url, int has_url);
void ublk_delete(struct ublk_entry *e);
void ublk_delete_by_mac(const u8 *mac);
void ublk_delete_by_url(const char *url);
void ublk_flush(int expired_only);
void ublk_free(struct ublk_entry *e);
int has_expired(const struct ublk_entry *e);

void set_flush_supending(int value);
int get_flush_supending(void);

int unblock_init(void);
void unblock_fini(void);
