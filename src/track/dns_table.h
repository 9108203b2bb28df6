#pragma once
// DNS name cache (dns_table).
int dns_init(void);
void dns_fini(void);
