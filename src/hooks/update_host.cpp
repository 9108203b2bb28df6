// The firmware-update host name.
#include "hooks/update_host.h"

#include "linux/string.h"

int is_fw_update_host(const char *name)
{
	return strcasecmp(name, FW_UPDATE_HOST) == 0;
}
