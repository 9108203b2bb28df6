#pragma once
// Unblock list (g_ublk_t) and its control file "unblock_proc".
int unblock_init(void);
void unblock_fini(void);
