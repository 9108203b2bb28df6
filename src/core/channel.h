#pragma once
// The netlink channel to the rating daemon (unit 2, multicast group 1).
#include "linux/types.h"

struct sk_buff;

// Receives each reply payload: payload, netlink message type, byte count
// (the buffer's length less the netlink header). At least a whole
// rating_reply is readable at the payload, whatever the count says.
typedef int (*nl_handler_t)(void *data, u16 type, int len);

// 0, or -EINVAL without a handler or when the socket cannot be made.
int nlink_init(nl_handler_t handler);
void nlink_fini(void);
// Broadcasts len bytes of data as one message of `type` to group 1.
// 0 when handed to netlink (listeners or not), -1 otherwise. The caller
// keeps data.
int send_to_user(u16 type, void *data, int len);
// The socket's input: one message per buffer, handed to the handler.
void rcv_from_sk(struct sk_buff *skb);
