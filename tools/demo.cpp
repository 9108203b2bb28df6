// The demo: the filter on the simulated router, as an operator would see it.
#include <cstdio>
#include <string>

#include "kmodel/host.h"
#include "sim/router.h"

static void step(sim::Router &r, const char *file, const char *text)
{
	std::string t = text;
	int ret = r.write_proc(file, t);
	std::string shown = t;
	if (!shown.empty() && shown.back() == '\n')
		shown.replace(shown.size() - 1, 1, "\\n");
	printf("$ echo -n '%s' > /proc/%s    -> %d\n", shown.c_str(), file, ret);
}

int main()
{
	sim::Router router;
	printf("== dnshook on the simulated router ==\n");
	printf("-- kernel log lines follow the command that caused them --\n\n");
	kmodel_log_echo(true);

	printf("$ insmod dnshook\n");
	fflush(stdout);
	int ret = router.load();
	
	printf("   -> %d\n", ret);

	const char *steps[][2] = {
		{ "wl_warning_page", "1\n" }, { "pcg_proc", "1\n" },  { "pcg_proc", "1\n" },
		{ "wl_warning_page", "0\n" }, { "wl_warning_page", "0" }, { "pcg_proc", "x" },
	};
	for (auto &s : steps) {
		
		step(router, s[0], s[1]);
		fflush(stdout);
	}

	printf("$ rmmod dnshook\n");
	fflush(stdout);
	router.unload();
	
	return ret == 0 ? 0 : 1;
}
