#pragma once
// Text commands written into the list control files.
#include "linux/types.h"

// A command is text: a NUL ends it, and only NULs may follow that one. A
// NUL with more text behind it would cut the command short where the
// writer did not (a URL dropped from "+|MAC|URL" turns a URL exemption into
// a device-wide one, "=|flush_ublk" followed by anything loses the flush
// of the HTTPS flows), so such a write is refused with -EINVAL and nothing
// changes.
static inline int command_cut_short(const char *buf, unsigned long count)
{
	unsigned long i;
	int ended = 0;

	for (i = 0; i < count; i++) {
		if (!buf[i])
			ended = 1;
		else if (ended)
			return 1;
	}
	return 0;
}
