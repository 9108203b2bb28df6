// libFuzzer target for the rating daemon's side: a policy file as a
// household might write it (or mistype it), and one message as the daemon
// reads it from the filter.
//
// Input: the policy's text up to the first NUL byte; after it a flags
// byte, four bytes of time (seconds after 2023-11-14, little-endian) and
// the message. The message is cut or padded with zeros to the record's
// 576 bytes unless flags bit 0 asks for it as it stands.
//
// Checked: a policy either loads with no error or is refused with at
// least one, each naming the file and a line of it; a decision is one of
// the three verdicts, with a block-page address (at most 511 characters)
// only when it blocks, and comes out the same when asked twice; the reply
// echoes the request and carries exactly that verdict and address,
// NUL-terminated; the decision's log line is one line with no control
// character whatever bytes the names in the message hold.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rated/log.h"
#include "rated/policy.h"
#include "rated/responder.h"
#include "rated/wire.h"

namespace {

const char kName[] = "fuzz.policy";

void check(bool ok)
{
	if (!ok)
		abort();
}

void check_errors(const std::string &text, const std::vector<policy::Error> &errors)
{
	long lines = 1;
	for (char c : text)
		lines += c == '\n';
	for (const policy::Error &e : errors) {
		check(e.file == kName && e.line >= 0 && e.line <= lines && !e.message.empty());
		check(e.text().rfind(std::string(kName) + ":", 0) == 0);
	}
}

void check_decision(const policy::Decision &d)
{
	check(d.verdict == policy::Verdict::pass || d.verdict == policy::Verdict::white_pass ||
	      d.verdict == policy::Verdict::block);
	check(d.block_page.size() <= 511);
	check(d.verdict == policy::Verdict::block || d.block_page.empty());
	check(d.block_page.find('\0') == std::string::npos);
}

template <typename T> T at(const uint8_t *d, size_t off)
{
	T v;
	memcpy(&v, d + off, sizeof(v));
	return v;
}

void check_reply(const wire::Request &req, const wire::Record &reply, const policy::Decision &d)
{
	check(at<uint32_t>(reply.data(), 0) == 1 && at<uint32_t>(reply.data(), 4) == req.service + 1);
	check(memcmp(reply.data() + 8, req.raw.data() + 8, 40) == 0);
	check(at<uint32_t>(reply.data(), 48) == (uint32_t)d.verdict);
	const char *page = reinterpret_cast<const char *>(reply.data() + 52);
	check(strnlen(page, 512) == d.block_page.size() && d.block_page.compare(0, std::string::npos, page) == 0);
}

void check_line(const std::string &line)
{
	for (unsigned char c : line)
		check(c >= 0x20 && c != 0x7f);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const uint8_t *nul = (const uint8_t *)memchr(data, 0, size);
	std::string text((const char *)data, nul ? (size_t)(nul - data) : size);
	std::vector<policy::Error> errors;
	std::unique_ptr<policy::Policy> p = policy::Policy::parse(text, kName, errors);
	check(!p == !errors.empty());
	check_errors(text, errors);
	if (!p || !nul)
		return 0;

	const uint8_t *rest = nul + 1, *end = data + size;
	uint8_t flags = rest < end ? *rest++ : 0;
	uint32_t seconds = 0;
	if (end - rest >= 4) {
		memcpy(&seconds, rest, 4);
		rest += 4;
	}
	std::time_t when = 1700000000 + (std::time_t)seconds;
	std::vector<uint8_t> msg(rest, end);
	if (!(flags & 1))
		msg.resize(wire::kRecordLen);

	wire::Reject why{};
	std::optional<wire::Request> req = wire::parse_request(msg.data(), msg.size(), why);
	rated::Log log(rated::Level::error, false);
	rated::Responder responder(std::move(p), log);
	std::optional<wire::Record> reply = responder.answer(msg.data(), msg.size(), when);
	check(!req == !reply);
	if (!req)
		return 0;
	policy::Query q = wire::to_query(*req, when);
	policy::Decision d = responder.policy().decide(q), again = responder.policy().decide(q);
	check_decision(d);
	check(again.verdict == d.verdict && again.rule == d.rule && again.device == d.device &&
	      again.block_page == d.block_page);
	check_reply(*req, *reply, d);
	check_line(rated::decision_line(q, d));
	return 0;
}
