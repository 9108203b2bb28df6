#pragma once
// The host name of the product's own firmware-update service. Its non-HTTP
// flow records are never duplicated and survive expiry sweeps.
//
// A constant of the build: configuring with -DFW_UPDATE_HOST=name chooses
// another one (the definition then reaches every user of this header).
#ifndef FW_UPDATE_HOST
#define FW_UPDATE_HOST "fwupdate.dnshook.example"
#endif

// Case-insensitive comparison of the whole name.
int is_fw_update_host(const char *name);
