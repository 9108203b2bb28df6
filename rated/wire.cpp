#include "rated/wire.h"

#include <arpa/inet.h>

#include <cstring>

namespace wire {

namespace {

// The request's fields by their offsets in the record.
constexpr size_t kKind = 0, kService = 4, kFamily = 8, kSrc = 12, kDst = 28, kSrcPort = 44, kDstPort = 46,
		 kUrl = 48, kHost = 308, kTextLen = 260, kMac = 568;
// The reply's own fields.
constexpr size_t kVerdict = 48, kRedirect = 52, kRedirectLen = 512, kEchoFrom = 8, kEchoTo = 48;

template <typename T> T get(const uint8_t *d, size_t at)
{
	T v;
	memcpy(&v, d + at, sizeof(v));
	return v;
}

std::string text(const uint8_t *d, size_t at)
{
	const char *s = reinterpret_cast<const char *>(d + at);
	return std::string(s, strnlen(s, kTextLen));
}

} // namespace

bool is_flow(const Request &req) { return req.src_port == 0 && req.dst_port == 0; }

std::optional<Request> parse_request(const uint8_t *data, size_t len, Reject &why)
{
	if (len != kRecordLen) {
		why = Reject::wrong_size;
		return std::nullopt;
	}
	Request r;
	r.kind = get<uint32_t>(data, kKind);
	r.service = get<uint32_t>(data, kService);
	if (r.kind != 0) {
		why = Reject::not_a_request;
		return std::nullopt;
	}
	if (r.service != 2 && r.service != 4) {
		why = Reject::unknown_service;
		return std::nullopt;
	}
	r.family = get<uint16_t>(data, kFamily);
	memcpy(r.src.data(), data + kSrc, 16);
	memcpy(r.dst.data(), data + kDst, 16);
	r.src_port = get<uint16_t>(data, kSrcPort);
	r.dst_port = get<uint16_t>(data, kDstPort);
	r.url = text(data, kUrl);
	r.host = text(data, kHost);
	memcpy(r.mac.data(), data + kMac, 6);
	memcpy(r.raw.data(), data, kRecordLen);
	return r;
}

std::string client_text(const Request &req)
{
	char s[INET6_ADDRSTRLEN] = "";
	// The WP flow request leaves the family unfilled and the client zero.
	if (req.service == 2 && is_flow(req))
		return "";
	if (req.family == 10)
		inet_ntop(AF_INET6, req.src.data(), s, sizeof(s));
	else
		inet_ntop(AF_INET, req.src.data(), s, sizeof(s));
	return s;
}

policy::Query to_query(const Request &req, std::time_t when)
{
	policy::Query q;
	q.service = req.service == 4 ? policy::Service::pc : policy::Service::wp;
	q.host = req.host;
	q.url = req.url;
	if (q.service == policy::Service::pc)
		q.mac = req.mac;
	q.client = client_text(req);
	q.when = when;
	q.flow = is_flow(req);
	return q;
}

Record build_reply(const Request &req, policy::Verdict verdict, const std::string &block_page)
{
	Record r{};
	memcpy(r.data() + kEchoFrom, req.raw.data() + kEchoFrom, kEchoTo - kEchoFrom);
	uint32_t kind = 1, service = req.service + 1, v = uint32_t(verdict);
	memcpy(r.data() + kKind, &kind, 4);
	memcpy(r.data() + kService, &service, 4);
	memcpy(r.data() + kVerdict, &v, 4);
	memcpy(r.data() + kRedirect, block_page.data(), std::min(block_page.size(), kRedirectLen - 1));
	return r;
}

const char *reject_text(Reject why)
{
	switch (why) {
	case Reject::wrong_size: return "not 576 bytes long";
	case Reject::not_a_request: return "not a request (kind not 0)";
	case Reject::unknown_service: return "for an unknown service (neither 2 nor 4)";
	}
	return "?";
}

} // namespace wire
