#pragma once
// Sleeping locks (single-threaded model: nothing to wait for).
struct mutex {
	int locked;
};

#define DEFINE_MUTEX(m) struct mutex m = {0}

static inline void mutex_init(struct mutex *m) { m->locked = 0; }
static inline void mutex_lock(struct mutex *m) { m->locked = 1; }
static inline void mutex_unlock(struct mutex *m) { m->locked = 0; }
