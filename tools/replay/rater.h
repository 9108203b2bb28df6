#pragma once
// The rating daemon's side of the replay: reads a request the filter sent
// and answers it from the policy exactly as the daemon does.
#include <ctime>
#include <optional>

#include "rated/policy.h"
#include "rated/wire.h"
#include "tools/replay/capture.h"
#include "tools/replay/report.h"

namespace replay {

struct Rating {
	RequestEvent request;
	std::optional<wire::Record> reply; // none: no policy, or not answerable
	ReplyEvent decision;
};

// One request payload (the bytes after the netlink header), numbered id,
// rated at wall-clock time `when`. policy may be null: nothing answers.
Rating rate(const policy::Policy *policy, const Bytes &payload, uint64_t id, std::time_t when);

} // namespace replay
