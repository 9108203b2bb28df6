// libFuzzer target for decode_http.
//
// Each input is decoded twice, from exactly-sized heap copies so that
// AddressSanitizer sees any read past what the callers provide:
//  - as the IPv6 hook passes it: the bytes as they are (NULs included),
//    len = their count, one NUL behind them;
//  - as the IPv4 hook passes a request it had to cut: the text up to its
//    first NUL, two NULs behind it (the end of the zero-filled buffer) and
//    a len larger than the text.
// The fields are prefilled so that writes past the 256 bytes of a field,
// and results that contradict the fields, abort.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "decode/http.h"

static void check_field(const char *field, int len)
{
	// The decoder writes at most 256 bytes of a field: the rest stays 0x5a.
	for (int i = 256; i < HTTP_FIELD_LEN; i++) {
		if (field[i] != 0x5a)
			abort();
	}
	if (len >= 0 && memchr(field, 0, 256) == nullptr)
		abort();
}

static void decode_once(const char *text, size_t size, size_t nuls, int len)
{
	char *buf = (char *)malloc(size + nuls);
	struct http_info info;
	int ret;

	memcpy(buf, text, size);
	memset(buf + size, 0, nuls);
	memset(&info, 0x5a, sizeof(info));

	ret = decode_http(buf, len, &info);
	if (ret < -4 || ret > 0)
		abort();
	if (ret == 0 || ret == -4) {
		check_field(info.url, ret);
		check_field(info.host, ret);
	}
	if (ret == -4 && info.url[0] && info.host[0])
		abort();
	if (ret == 0 && len >= 0 && (strlen(info.url) > 255 || strlen(info.host) > 255))
		abort();
	if (ret <= -1 && ret >= -3 && memcmp(&info, "\x5a\x5a\x5a\x5a", 4) != 0)
		abort();  // early failures leave the record alone
	free(buf);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const char *text = (const char *)data;
	size_t textlen;

	if (size > 4096)
		return 0;
	decode_once(text, size, 1, (int)size);

	textlen = strnlen(text, size);
	decode_once(text, textlen, 2, (int)textlen + 1 + (int)(size % 4096));
	return 0;
}
