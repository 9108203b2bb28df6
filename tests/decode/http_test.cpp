// decode_http on hand-made requests: result codes, the line walk in which
// later lines win, the 255-character cuts and the buffer contract.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "decode/http.h"

namespace {

struct Decoded {
	int ret;
	std::string url, host;
	http_info info;
};

// Decodes text from a buffer holding it and one NUL, as the hooks do;
// the fields start out as 0x5a so untouched bytes can be seen.
Decoded decode(const std::string &text, int len = INT_MIN)
{
	std::vector<char> buf(text.begin(), text.end());
	buf.push_back('\0');
	Decoded d;
	memset(&d.info, 0x5a, sizeof(d.info));
	d.ret = decode_http(buf.data(), len == INT_MIN ? (int)text.size() : len, &d.info);
	EXPECT_EQ(std::string(buf.data(), text.size()), text) << "input modified";
	d.url = std::string(d.info.url, strnlen(d.info.url, sizeof(d.info.url)));
	d.host = std::string(d.info.host, strnlen(d.info.host, sizeof(d.info.host)));
	return d;
}

const std::string kReq = "GET /index.html HTTP/1.1\r\nHost: www.example.test\r\nAccept: */*\r\n\r\n";

} // namespace

TEST(HttpDecoder, ResultCodes)
{
	Decoded d = decode(kReq);
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.url, "/index.html");
	EXPECT_EQ(d.host, "www.example.test");

	for (const char *m : { "PUT ", "HEAD ", "POST " }) {
		d = decode(std::string(m) + "/x HTTP/1.0\r\nHost: h\r\n\r\n");
		EXPECT_EQ(d.ret, 0) << m;
		EXPECT_EQ(d.url, "/x") << m;
	}

	// 18 bytes is the shortest accepted length.
	EXPECT_EQ(decode("GET / HTTP/1.1\r\n\r\n").ret, -4);
	EXPECT_EQ(decode("GET / HTTP/1.1\r\n\r\n", 17).ret, -1);
	EXPECT_EQ(decode(kReq, 17).ret, -1);
	EXPECT_EQ(decode(kReq, -5).ret, -1);

	EXPECT_EQ(decode("OPTIONS / HTTP/1.1\r\nHost: h\r\n\r\n").ret, -2);
	EXPECT_EQ(decode("get / HTTP/1.1\r\nHost: h\r\n\r\n").ret, -2);
	EXPECT_EQ(decode(" GET / HTTP/1.1\r\nHost: h\r\n\r\n").ret, -2);
	EXPECT_EQ(decode("DELETE / HTTP/1.1\r\nHost: h\r\n\r\n").ret, -2);

	EXPECT_EQ(decode("GET / HTTP/1.1\r\nHost: www.example.test\r\n").ret, -3);
	EXPECT_EQ(decode("GET / HTTP/1.1\nHost: www.example.test\n\n").ret, -3);
	// A NUL before the header end hides the marker.
	EXPECT_EQ(decode(std::string("GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n", 30)).ret, -3);
	// The early failures leave the record as it was.
	d = decode("OPTIONS / HTTP/1.1\r\nHost: h\r\n\r\n");
	EXPECT_EQ(d.info.url[0], 0x5a);
	EXPECT_EQ(d.info.host[0], 0x5a);

	// No Host line: host made empty, url kept.
	d = decode("GET /nohost HTTP/1.1\r\nAccept: */*\r\n\r\n");
	EXPECT_EQ(d.ret, -4);
	EXPECT_EQ(d.url, "/nohost");
	EXPECT_EQ(d.host, "");
}

TEST(HttpDecoder, LineWalkLaterLinesWin)
{
	// Pipelined requests: the last request line and Host line win.
	Decoded d = decode("GET /first HTTP/1.1\r\nHost: one.test\r\n\r\n"
			   "GET /second HTTP/1.1\r\nHost: two.test\r\n\r\n");
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.url, "/second");
	EXPECT_EQ(d.host, "two.test");

	// The second request has no Host line: the first one's stays.
	d = decode("GET /first HTTP/1.1\r\nHost: one.test\r\n\r\nHEAD /second HTTP/1.1\r\n\r\n");
	EXPECT_EQ(d.url, "/second");
	EXPECT_EQ(d.host, "one.test");

	// Body lines are walked too, as long as they lie before len.
	std::string body = "POST /form HTTP/1.1\r\nHost: real.test\r\n\r\nHost: body.test\r\nPUT /in-body\r\n";
	d = decode(body);
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.url, "/in-body");
	EXPECT_EQ(d.host, "body.test");
	d = decode(body, (int)body.find("Host: body"));
	EXPECT_EQ(d.url, "/form");
	EXPECT_EQ(d.host, "real.test");

	// Only "Host: " exactly, at the very start of a line, is the header.
	for (const char *line : { "host: h.test", "HOST: h.test", "Host:h.test", " Host: h.test", "X-Host: h.test" }) {
		d = decode(std::string("GET / HTTP/1.1\r\n") + line + "\r\n\r\n");
		EXPECT_EQ(d.ret, -4) << line;
		EXPECT_EQ(d.host, "") << line;
	}

	// A URL that itself starts with "Host: " is read as a Host line.
	d = decode("GET Host: odd.test HTTP/1.1\r\n\r\n");
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.url, "Host:");
	EXPECT_EQ(d.host, "odd.test HTTP/1.1");

	// The byte after '\r' is skipped unseen, whatever it is.
	d = decode("GET /a HTTP/1.1\rXHost: x.test\r\n\r\n");
	EXPECT_EQ(d.host, "x.test");
}

TEST(HttpDecoder, FieldValues)
{
	// Host taken as it stands: port, case and trailing blanks kept.
	Decoded d = decode("GET / HTTP/1.1\r\nHost: WWW.Example.test:8080  \r\n\r\n");
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.host, "WWW.Example.test:8080  ");

	// Absolute target kept whole; host only from the Host line.
	d = decode("GET http://proxied.test/a/b?c=d HTTP/1.1\r\nHost: other.test\r\n\r\n");
	EXPECT_EQ(d.url, "http://proxied.test/a/b?c=d");
	EXPECT_EQ(d.host, "other.test");

	// Two blanks after the method: an empty URL that still counts.
	d = decode("GET  /x HTTP/1.1\r\nHost: h.test\r\n\r\n");
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.url, "");

	// No blank on the request line: the URL runs to the line end.
	d = decode("GET /no-version\r\nHost: h.test\r\n\r\n");
	EXPECT_EQ(d.url, "/no-version");

	// Empty Host value.
	d = decode("GET / HTTP/1.1\r\nHost: \r\n\r\n");
	EXPECT_EQ(d.ret, 0);
	EXPECT_EQ(d.host, "");
}

TEST(HttpDecoder, LongFieldsAreCutAt255)
{
	for (size_t n : { 254u, 255u, 256u, 300u, 1500u }) {
		std::string url = "/" + std::string(n - 1, 'u');
		std::string host(n, 'h');
		Decoded d = decode("GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n");
		EXPECT_EQ(d.ret, 0) << n;
		EXPECT_EQ(d.url, url.substr(0, 255)) << n;
		EXPECT_EQ(d.host, host.substr(0, 255)) << n;
		// At most 256 bytes of each field are written.
		for (int i = 256; i < HTTP_FIELD_LEN; i++) {
			EXPECT_EQ(d.info.url[i], 0x5a) << n;
			EXPECT_EQ(d.info.host[i], 0x5a) << n;
		}
	}

	// A short value after a long one: the field ends at the new length,
	// the old bytes behind it stay.
	Decoded d = decode("GET /" + std::string(100, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\nGET /b\r\n");
	EXPECT_EQ(d.url, "/b");
	EXPECT_EQ(d.info.url[3], 'a');
}

TEST(HttpDecoder, CollectionBufferContract)
{
	// The IPv4 hook passes the untruncated length of a request it had to
	// cut at 2046 characters; the zero-filled buffer ends the text.
	char req_buf[2048] = {};
	std::string big = "GET /big HTTP/1.1\r\nHost: big.test\r\nX-Pad: " + std::string(3000, 'p');
	int req_len = snprintf(req_buf, 2047, "%s\r\n\r\n", big.c_str());
	req_buf[2047] = '\0';
	ASSERT_GT(req_len, 2047);
	http_info info;
	EXPECT_EQ(decode_http(req_buf, req_len, &info), -3);

	// Cut right after a '\r': the walk steps over the NUL behind it.
	memset(req_buf, 0, sizeof(req_buf));
	std::string text = "GET /cut HTTP/1.1\r\nHost: cut.test\r\n\r\n";
	text += std::string(2045 - text.size(), 'p') + "\r";
	ASSERT_EQ(text.size(), 2046u);
	memcpy(req_buf, text.data(), text.size());
	EXPECT_EQ(decode_http(req_buf, 5000, &info), 0);
	EXPECT_STREQ(info.url, "/cut");
	EXPECT_STREQ(info.host, "cut.test");
}
