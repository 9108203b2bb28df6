// The firmware-update host name.
#include "hooks/update_host.h"

#include "linux/string.h"

#ifndef FW_UPDATE_HOST
#define FW_UPDATE_HOST "fwupdate.dnshook.example"
#endif

char fw_update_host[FW_UPDATE_HOST_LEN] = FW_UPDATE_HOST;

void set_fw_update_host(const char *name)
{
	if (!name)
		name = FW_UPDATE_HOST;
	strncpy(fw_update_host, name, FW_UPDATE_HOST_LEN - 1);
	fw_update_host[FW_UPDATE_HOST_LEN - 1] = 0;
}

int is_fw_update_host(const char *name)
{
	return strcasecmp(name, fw_update_host) == 0;
}
