// The whole run of dnshook-replay (see run.h).
#include "tools/replay/run.h"

#include <chrono>
#include <cstdio>
#include <memory>

#include "tools/replay/capture.h"
#include "tools/replay/forged_pcap.h"
#include "tools/replay/options.h"
#include "tools/replay/replayer.h"
#include "tools/replay/report.h"

namespace {

enum Exit { EXIT_OK = 0, EXIT_CAPTURE = 1, EXIT_USAGE = 2 };

} // namespace

namespace replay {

int replay_main(const std::vector<std::string> &args, FILE *out, FILE *err)
{
	Options opts;
	try {
		opts = parse_options(args);
	} catch (const UsageError &e) {
		fprintf(err, "dnshook-replay: %s\nTry 'dnshook-replay --help'.\n", e.what());
		return EXIT_USAGE;
	}
	if (opts.help) {
		fputs(kUsage, out);
		return EXIT_OK;
	}

	std::unique_ptr<policy::Policy> pol;
	if (!opts.policy.empty()) {
		std::vector<policy::Error> errors;
		pol = policy::Policy::load_file(opts.policy, errors);
		if (!pol) {
			for (const policy::Error &e : errors)
				fprintf(err, "dnshook-replay: %s\n", e.text().c_str());
			if (errors.empty())
				fprintf(err, "dnshook-replay: %s: cannot load the policy\n", opts.policy.c_str());
			return EXIT_USAGE;
		}
	}

	std::unique_ptr<CaptureReader> reader;
	std::unique_ptr<ForgedPcap> forged;
	try {
		reader = std::make_unique<CaptureReader>(opts.capture);
		if (!opts.out.empty())
			forged = std::make_unique<ForgedPcap>(opts.out);
	} catch (const CaptureError &e) {
		fprintf(err, "dnshook-replay: %s\n", e.what());
		return EXIT_CAPTURE;
	}

	Report report(out, opts.json, opts.quiet);
	report.start(opts.capture, reader->link_name());
	auto started = std::chrono::steady_clock::now();
	int rc = EXIT_OK;
	Summary sum;
	try {
		Replayer replayer(opts, pol.get(), report, forged.get());
		CapturedPacket p;
		try {
			while (reader->next(&p))
				replayer.packet(p);
		} catch (const CaptureError &e) {
			// What came before the fault has been replayed: sum it up.
			fprintf(err, "dnshook-replay: %s\n", e.what());
			rc = EXIT_CAPTURE;
			sum.error = e.what();
		}
		std::string error = sum.error;
		sum = replayer.finish();
		sum.error = error;
		if (forged)
			forged->close();
	} catch (const std::exception &e) {
		fprintf(err, "dnshook-replay: %s\n", e.what());
		return EXIT_CAPTURE;
	}
	sum.wall_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
	report.summary(sum);
	fflush(out);
	return rc;
}

} // namespace replay
