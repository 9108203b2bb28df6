// Demo: load the filter, switch both services through their files, unload.
#include <cstdio>
#include <string>

#include "kmodel/host.h"
#include "sim/router.h"
#include "tools/demo.h"

static void write_file(sim::Router &r, const char *file, const char *text)
{
	std::string shown = text;
	if (!shown.empty() && shown.back() == '\n')
		shown.replace(shown.size() - 1, 1, "\\n");
	demo_command("echo -n '" + shown + "' > /proc/" + file);
	demo_result(r.write_proc(file, text));
}

void demo_switches(void)
{
	printf("\n-- load, switch the services on and off, unload --\n");
	sim::Router router;
	kmodel_log_echo(true);

	demo_command("insmod dnshook");
	demo_result(router.load());

	const char *steps[][2] = {
		{ "wl_warning_page", "1\n" }, { "pcg_proc", "1\n" },     { "pcg_proc", "1\n" },
		{ "wl_warning_page", "0\n" }, { "wl_warning_page", "0" }, { "pcg_proc", "x" },
	};
	for (auto &s : steps)
		write_file(router, s[0], s[1]);

	demo_command("rmmod dnshook");
	router.unload();
	kmodel_log_echo(false);
}
