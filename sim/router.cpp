#include "sim/router.h"

#include "kmodel/host.h"
#include "linux/module.h"

namespace sim {

Router::Router() { kmodel_reset(); }

Router::~Router() { unload(); }

int Router::load()
{
	int ret = init_module();
	loaded_ = true; // a failed load leaves its steps in place; unload still runs
	return ret;
}

void Router::unload()
{
	if (!loaded_)
		return;
	cleanup_module();
	loaded_ = false;
}

int Router::write_proc(const char *file, const std::string &text)
{
	return kmodel_proc_write_str(file, text);
}

} // namespace sim
