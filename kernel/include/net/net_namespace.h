#pragma once
// Network namespaces: the model has only the initial one.
#include "linux/atomic.h"

struct net {
	atomic_t count;
	int id;
};

extern struct net init_net;
