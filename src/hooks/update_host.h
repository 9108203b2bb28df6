#pragma once
// The host name of the product's own firmware-update service. Its non-HTTP
// flow records are never duplicated and survive expiry sweeps.
//
// Built in from FW_UPDATE_HOST (a compile definition may replace the
// default); a host may replace it before loading the module.

#define FW_UPDATE_HOST_LEN 256

extern char fw_update_host[FW_UPDATE_HOST_LEN];

// Copies at most FW_UPDATE_HOST_LEN - 1 bytes of name; NULL restores the
// built-in name.
void set_fw_update_host(const char *name);
// Case-insensitive comparison of the whole name.
int is_fw_update_host(const char *name);
