#pragma once
// Non-HTTP flow tables (pct_table, pct6_table).
int pct_init(void);
void pct_fini(void);
int pct6_init(void);
void pct6_fini(void);
