#pragma once
// The netlink channel to the rating daemon (unit 2, multicast group 1).
#include "linux/types.h"

struct sk_buff;

// Receives each reply payload: payload, netlink message type, byte count.
typedef int (*nl_handler_t)(void *data, u16 type, int len);

int nlink_init(nl_handler_t handler);
void nlink_fini(void);
int send_to_user(u16 type, void *data, int len);
void rcv_from_sk(struct sk_buff *skb);
