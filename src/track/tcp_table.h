#pragma once
// HTTP connection tables (IPv4 tcp_table, IPv6 tcp_table6).
int cbt_tcp_init(void);
void cbt_tcp_fini(void);
