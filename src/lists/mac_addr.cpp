// MAC address text and hashing.
#include "lists/mac_addr.h"

#include "linux/kernel.h"
#include "linux/string.h"

int ether_atoe(const char *a, u8 *mac)
{
	char *end;
	int i;

	memset(mac, 0, ETH_ALEN);
	for (i = 0; i < ETH_ALEN; i++) {
		mac[i] = (u8)simple_strtoul(a, &end, 16);
		// Whatever stopped the number separates it from the next one,
		// unless it is the end of the text.
		if (*end == '\0')
			return i == ETH_ALEN - 1;
		a = end + 1;
	}
	return 1;
}

int mac_unusable(const u8 *mac)
{
	if (mac[0] & 1)
		return 1;
	return !(mac[0] | mac[1] | mac[2] | mac[3] | mac[4] | mac[5]);
}

int get_hwaddr(const char *text, u8 *mac)
{
	if (!text || !*text)
		return -1;
	ether_atoe(text, mac);
	if (mac_unusable(mac))
		return -1;
	return 0;
}

unsigned int mac_hash(const u8 *mac, unsigned int buckets)
{
	u32 h = mac[0];
	int i;

	for (i = 1; i < ETH_ALEN; i++)
		h = (h * 4) ^ mac[i];
	return (h ^ (h >> 8)) & (buckets - 1);
}
