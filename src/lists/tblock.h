#pragma once
// Time-block list (g_tblk_t) and its control file "tblock_proc".
int tblock_init(void);
void tblock_fini(void);
