#pragma once
// Network devices, the link-layer header cache and transmission.
#include "linux/atomic.h"
#include "linux/if_ether.h"
#include "linux/skbuff.h"
#include "linux/types.h"

#define IFNAMSIZ 16
#define MAX_ADDR_LEN 32
#define LL_MAX_HEADER 32

#define ARPHRD_ETHER 1
#define ARPHRD_LOOPBACK 772

#define IFF_UP 0x1
#define IFF_BROADCAST 0x2
#define IFF_LOOPBACK 0x8
#define IFF_NOARP 0x80

#define NETDEV_TX_OK 0x00
#define NET_XMIT_SUCCESS 0x00
#define NET_XMIT_DROP 0x01

struct net;

struct net_device {
	char name[IFNAMSIZ];
	unsigned long mem_end;
	unsigned long mem_start;
	unsigned long base_addr;
	unsigned int irq;
	unsigned long state;
	struct net_device *next;
	int ifindex;
	unsigned int flags;
	unsigned int mtu;
	unsigned short type;
	unsigned short hard_header_len;
	unsigned char addr_len;
	// Hardware address: addr_len bytes; dev_addr points at perm_addr's
	// storage in the model.
	unsigned char *dev_addr;
	unsigned char perm_addr[MAX_ADDR_LEN];
	unsigned char broadcast[MAX_ADDR_LEN];
	struct net *nd_net;
	atomic_t refcnt;
};

// Link-layer header cache of a route: hh_len bytes of ready-made header,
// stored right-aligned in the first HH_DATA_MOD-aligned block of hh_data
// (so that copying HH_DATA_MOD bytes to data - HH_DATA_MOD and pushing
// hh_len puts the header in front of the packet).
struct hh_cache {
	struct hh_cache *hh_next;
	atomic_t hh_refcnt;
	__be16 hh_type;
	u16 hh_len;
	int (*hh_output)(struct sk_buff *skb);
#define HH_DATA_MOD 16
#define HH_DATA_OFF(__len) (HH_DATA_MOD - (((__len - 1) & (HH_DATA_MOD - 1)) + 1))
#define HH_DATA_ALIGN(__len) (((__len) + (HH_DATA_MOD - 1)) & ~(HH_DATA_MOD - 1))
	unsigned long hh_data[HH_DATA_ALIGN(LL_MAX_HEADER) / sizeof(long)];
};

// Hands the buffer to the device for transmission; consumes it.
int dev_queue_xmit(struct sk_buff *skb);

// Builds the device's link-layer header in front of skb->data.
int dev_hard_header(struct sk_buff *skb, struct net_device *dev, unsigned short type,
		    const void *daddr, const void *saddr, unsigned int len);

struct net_device *dev_get_by_name(struct net *net, const char *name);
void dev_hold(struct net_device *dev);
void dev_put(struct net_device *dev);
