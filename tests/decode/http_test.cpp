// decode_http on hand-made requests: result codes, the line walk in which
// later lines win, the 255-character cuts and the collection buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "decode/http.h"

namespace {

// Decodes text followed by NULs, as in the zero-filled collection buffer;
// the record starts out as 0x5a bytes so untouched bytes show.
int decode(const std::string &text, http_info *info, int len)
{
	std::vector<char> buf(text.begin(), text.end());
	buf.resize(buf.size() + 2, '\0');
	memset(info, 0x5a, sizeof(*info));
	int ret = decode_http(buf.data(), len, info);
	EXPECT_EQ(std::string(buf.data(), text.size()), text) << "input modified";
	return ret;
}

std::string field(const char *f) { return std::string(f, strnlen(f, 256)); }

} // namespace

TEST(HttpDecoder, ResultsAndFields)
{
	const std::string cut = "GET /big HTTP/1.1\r\nHost: h\r\n\r\n" + std::string(20, 'p') + "\r\n\r\n";
	struct Case { std::string text; int len, ret; const char *url, *host; } cases[] = {
		{ "GET /index.html HTTP/1.1\r\nHost: www.example.test\r\nAccept: */*\r\n\r\n", 0, 0, "/index.html", "www.example.test" },
		{ "PUT /p HTTP/1.1\r\nHost: h\r\n\r\n", 0, 0, "/p", "h" },
		{ "HEAD /h HTTP/1.1\r\nHost: h\r\n\r\n", 0, 0, "/h", "h" },
		{ "POST /f HTTP/1.1\r\nHost: h\r\n\r\nbody", 0, 0, "/f", "h" },
		{ "GET / HTTP/1.1\r\n\r\n", 0, -4, "/", "" },  // 18 bytes: long enough
		{ "GET / HTTP/1.1\r\n\r\n", 17, -1, nullptr, nullptr },
		{ "GET / HTTP/1.1\r\n\r\n", -7, -1, nullptr, nullptr },
		{ "OPTIONS / HTTP/1.1\r\nHost: h\r\n\r\n", 0, -2, nullptr, nullptr },
		{ "get / HTTP/1.1\r\nHost: h\r\n\r\n", 0, -2, nullptr, nullptr },
		{ " GET / HTTP/1.1\r\nHost: h\r\n\r\n", 0, -2, nullptr, nullptr },
		{ "GET / HTTP/1.1\r\nHost: www.example.test\r\n", 0, -3, nullptr, nullptr },
		{ "GET / HTTP/1.1\nHost: www.example.test\n\n", 0, -3, nullptr, nullptr },
		{ std::string("GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n", 30), 0, -3, nullptr, nullptr },  // NUL hides the end
		{ "GET /nohost HTTP/1.1\r\nAccept: */*\r\n\r\n", 0, -4, "/nohost", "" },
		// Host as it stands: port, case, trailing blanks.
		{ "GET / HTTP/1.1\r\nHost: WWW.Example.test:8080  \r\n\r\n", 0, 0, "/", "WWW.Example.test:8080  " },
		{ "GET / HTTP/1.1\r\nHost: \r\n\r\n", 0, 0, "/", "" },
		{ "GET http://proxied.test/a?b=c HTTP/1.1\r\nHost: other.test\r\n\r\n", 0, 0, "http://proxied.test/a?b=c", "other.test" },
		{ "GET  /x HTTP/1.1\r\nHost: h.test\r\n\r\n", 0, 0, "", "h.test" },  // two blanks: empty URL
		{ "GET /no-version\r\nHost: h.test\r\n\r\n", 0, 0, "/no-version", "h.test" },
		// Only "Host: " exactly, at the very start of a line.
		{ "GET / HTTP/1.1\r\nhost: h\r\nHOST: h\r\nHost:h\r\n Host: h\r\nX-Host: h\r\n\r\n", 0, -4, "/", "" },
		// Pipelined requests: the last request line and Host line win ...
		{ "GET /1 HTTP/1.1\r\nHost: one\r\n\r\nGET /2 HTTP/1.1\r\nHost: two\r\n\r\n", 0, 0, "/2", "two" },
		// ... each on its own: the second request has no Host line.
		{ "GET /1 HTTP/1.1\r\nHost: one\r\n\r\nHEAD /2 HTTP/1.1\r\n\r\n", 0, 0, "/2", "one" },
		// Body lines are walked as long as they lie before len.
		{ "POST /f HTTP/1.1\r\nHost: real\r\n\r\nHost: body\r\nPUT /in-body\r\n", 0, 0, "/in-body", "body" },
		{ "POST /f HTTP/1.1\r\nHost: real\r\n\r\nHost: body\r\nPUT /in-body\r\n", 34, 0, "/f", "real" },
		// A URL starting with "Host: " is also read as a Host line.
		{ "GET Host: odd.test HTTP/1.1\r\n\r\n", 0, 0, "Host:", "odd.test HTTP/1.1" },
		// The byte after '\r' is skipped unseen.
		{ "GET /a HTTP/1.1\rXHost: x.test\r\n\r\n", 0, 0, "/a", "x.test" },
		// The IPv4 hook's untruncated length of a text cut after a '\r'.
		{ cut.substr(0, cut.size() - 3), 5000, 0, "/big", "h" },
	};
	for (const auto &c : cases) {
		http_info info;
		int ret = decode(c.text, &info, c.len ? c.len : (int)c.text.size());
		EXPECT_EQ(ret, c.ret) << c.text;
		if (!c.url) {
			EXPECT_EQ(info.url[0], 0x5a) << c.text;  // early failures write nothing
			EXPECT_EQ(info.host[0], 0x5a) << c.text;
			continue;
		}
		EXPECT_EQ(field(info.url), c.url) << c.text;
		EXPECT_EQ(field(info.host), c.host) << c.text;
	}
}

TEST(HttpDecoder, LongFieldsAreCutAt255)
{
	for (size_t n : { 254u, 255u, 256u, 300u, 1500u }) {
		std::string url = "/" + std::string(n - 1, 'u'), host(n, 'h');
		http_info info;
		ASSERT_EQ(decode("GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n", &info,
				 (int)(n * 2 + 29)), 0);
		EXPECT_EQ(field(info.url), url.substr(0, 255)) << n;
		EXPECT_EQ(field(info.host), host.substr(0, 255)) << n;
		for (int i = 256; i < HTTP_FIELD_LEN; i++) {
			EXPECT_EQ(info.url[i], 0x5a) << n;  // at most 256 bytes written
			EXPECT_EQ(info.host[i], 0x5a) << n;
		}
	}

	// A shorter URL later: the field ends at the new length, older bytes stay.
	http_info info;
	std::string text = "GET /" + std::string(100, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\nGET /b\r\n";
	ASSERT_EQ(decode(text, &info, (int)text.size()), 0);
	EXPECT_STREQ(info.url, "/b");
	EXPECT_EQ(info.url[3], 'a');
}
