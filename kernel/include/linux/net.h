#pragma once
// Sockets as seen by the kernel and the log rate limiter.
#include <sys/socket.h> // SOCK_* (kernel values)
#include "linux/types.h"

struct sock;

typedef enum {
	SS_FREE = 0,
	SS_UNCONNECTED,
	SS_CONNECTING,
	SS_CONNECTED,
	SS_DISCONNECTING
} socket_state;

struct socket {
	socket_state state;
	short type;
	unsigned long flags;
	struct sock *sk;
};

// Releases the socket and the sock behind it.
void sock_release(struct socket *sock);

// Non-zero when a rate-limited message may be printed now: at most 10
// messages per 5 * HZ jiffies by default; a window that ends with
// suppressed messages logs "<4>net_ratelimit: %d callbacks suppressed\n".
int net_ratelimit(void);
