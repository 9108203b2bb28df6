#pragma once
// The two 576-byte records of the rating channel, seen from the daemon's
// side: a request read from the filter, the reply built for it. Integers
// are in the host's byte order; addresses and ports stay as the filter
// copied them from the packet (network order).
#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "rated/policy.h"

namespace wire {

constexpr size_t kRecordLen = 576;
using Record = std::array<uint8_t, kRecordLen>;

struct Request {
	uint32_t kind = 0;
	uint32_t service = 0; // 2 WP, 4 PC
	uint16_t family = 0;  // 2 or 10; not filled in WP non-HTTP requests
	std::array<uint8_t, 16> src{}, dst{};
	uint16_t src_port = 0, dst_port = 0; // network order, as sent
	std::string url, host;
	policy::Mac mac{};
	Record raw{}; // the request as received
};

// Why a message cannot be answered.
enum class Reject { wrong_size, not_a_request, unknown_service };

// Reads one request payload (the bytes after the netlink header).
std::optional<Request> parse_request(const uint8_t *data, size_t len, Reject &why);

// The policy's question for a request, at time `when`.
policy::Query to_query(const Request &req, std::time_t when);

// The reply: header fields 8..47 echoed, kind 1, service + 1, the verdict,
// the block-page address NUL-terminated (cut to 511 characters).
Record build_reply(const Request &req, policy::Verdict verdict, const std::string &block_page);

// A request about a flow without HTTP: both ports 0.
bool is_flow(const Request &req);
// The client's address as text; "" where the request carries none.
std::string client_text(const Request &req);
// "not 576 bytes long", ... for the daemon's log.
const char *reject_text(Reject why);

} // namespace wire
