#pragma once
// HTTPS flow tables (ssl_table, ssl6_table).
int ssl_init(void);
void ssl_fini(void);
int ssl6_init(void);
void ssl6_fini(void);
