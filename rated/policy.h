#pragma once
// The rating policy: a hand-written text file of rules per service (WP,
// PC) and, for parental control, per device, turned into decisions for
// the rating requests the filter sends. Used by dnshook-rated and by
// dnshook-replay; knows nothing of the filter beyond the wire records.
#include <array>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace policy {

enum class Service { wp, pc };

// The reply's verdict codes.
enum class Verdict : uint32_t { pass = 0, white_pass = 1, block = 2 };

using Mac = std::array<uint8_t, 6>;

// One rating request as the policy sees it.
struct Query {
	Service service = Service::wp;
	std::string host;       // the Host value or the DNS name the filter sent
	std::string url;        // the request path; "/" or "" for non-HTTP flows
	std::optional<Mac> mac; // the client's MAC (parental control only)
	std::string client;     // the client's address as text
	std::time_t when = 0;   // when the request was made (wall clock)
	bool flow = false;      // a flow without HTTP (both ports 0 on the wire)
};

struct Decision {
	Verdict verdict = Verdict::pass;
	std::string rule;       // what decided, e.g. "home.policy:12: block games.example.net"
	std::string device;     // the device's name from the policy, "" if none
	std::string block_page; // Location of the block page (BLOCK only), at most 511 characters
};

struct Error {
	std::string file;
	int line = 0; // 0: the file as a whole
	std::string message;
	std::string text() const; // "file:line: message"
};

class Policy {
public:
	// Parses a whole policy. On any error returns nullptr and appends every
	// error found, each with its file and line: nothing is half-loaded.
	static std::unique_ptr<Policy> load_file(const std::string &path, std::vector<Error> &errors);
	static std::unique_ptr<Policy> parse(const std::string &text, const std::string &name,
					     std::vector<Error> &errors);

	// WP: the [wp] rules, else its default. PC: the device's rules, the
	// [pc] rules, an open window (the device's, then [pc]'s), the device's
	// default, the [pc] default. Else PASS. Windows use the local time
	// zone. A WP flow's white is answered as PASS, since the filter
	// blocks such a flow on anything but PASS.
	Decision decide(const Query &q) const;

	const std::string &name() const; // the file name errors and rules are reported with
	size_t rule_count() const;       // host and URL rules, defaults and schedules
	size_t device_count() const;

	~Policy();
	Policy(const Policy &) = delete;
	Policy &operator=(const Policy &) = delete;

	struct Impl;

private:
	explicit Policy(std::unique_ptr<Impl> impl);
	std::unique_ptr<Impl> impl_;
};

} // namespace policy
