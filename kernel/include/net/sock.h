#pragma once
// The kernel's network-layer socket.
#include "linux/net.h"
#include "linux/types.h"

struct net;

struct sock {
	unsigned short sk_family;
	int sk_protocol;
	int sk_type;
	struct net *sk_net;
	atomic_t sk_refcnt;
	struct socket *sk_socket;
	void (*sk_data_ready)(struct sock *sk, int bytes);
	void *sk_user_data;
};

static inline struct net *sock_net(const struct sock *sk)
{
	return sk->sk_net;
}
