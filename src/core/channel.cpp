// The netlink channel. Not built yet: no socket, nothing is sent.
#include "core/channel.h"

int nlink_init(nl_handler_t) { return 0; }
void nlink_fini(void) {}
int send_to_user(u16, void *, int) { return -1; }
void rcv_from_sk(struct sk_buff *) {}
