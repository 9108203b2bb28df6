#pragma once
// MAC address text and hashing, shared by the time-block and unblock lists.
#include "linux/if_ether.h"
#include "linux/types.h"

// Reads six hexadecimal numbers separated by any single character into mac
// (unread bytes stay 0). 1 when six numbers were read, else 0.
int ether_atoe(const char *a, u8 *mac);
// 0 when text holds a unicast, non-zero MAC (parsed into mac), else -1.
int get_hwaddr(const char *text, u8 *mac);
// Bucket of a MAC in a table of `buckets` heads (a power of two).
unsigned int mac_hash(const u8 *mac, unsigned int buckets);
// Nonzero for a group (broadcast, multicast) or all-zero address.
int mac_unusable(const u8 *mac);
