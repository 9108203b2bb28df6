#pragma once
// The simulated router: a deterministic host for the filter.
#include <string>

namespace sim {

// Boots a fresh kernel model and loads the filter into it.
class Router {
public:
	Router();
	~Router();
	Router(const Router &) = delete;
	Router &operator=(const Router &) = delete;

	int load();    // init_module's result
	void unload(); // cleanup_module, if loaded
	bool loaded() const { return loaded_; }

	// A user's write into /proc/<file>: the handler's result.
	int write_proc(const char *file, const std::string &text);

private:
	bool loaded_ = false;
};

} // namespace sim
