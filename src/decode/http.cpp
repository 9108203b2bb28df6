// HTTP request decoder. Every line of the buffer is looked at, the header
// and whatever body lies before len alike: a later request line replaces
// the URL and a later "Host: " line replaces the host, so of pipelined
// requests the last one wins.
//
// All searches stop at the first NUL byte and at data + len, whichever
// comes first, and compare byte by byte so that nothing behind a NUL is
// read. The input is never written.
#include "decode/http.h"

#define HTTP_MIN_LEN 18
#define HTTP_MAX_TEXT 255

// Does the text at data[pos] start with word? Stops at the first byte that
// differs, so a NUL in the data ends the comparison.
static int http_starts_with(const char *data, long pos, long len, const char *word)
{
	for (; *word; word++, pos++) {
		if (pos >= len || data[pos] != *word)
			return 0;
	}
	return 1;
}

// Length of the method (with its blank) that data[pos] starts with, or 0.
static int http_method_len(const char *data, long pos, long len)
{
	if (http_starts_with(data, pos, len, "GET ") || http_starts_with(data, pos, len, "PUT "))
		return 4;
	if (http_starts_with(data, pos, len, "HEAD ") || http_starts_with(data, pos, len, "POST "))
		return 5;
	return 0;
}

// Offset of the first c at or after pos, before the first NUL; -1 if none.
static long http_find(const char *data, long pos, long len, char c)
{
	for (; pos < len && data[pos]; pos++) {
		if (data[pos] == c)
			return pos;
	}
	return -1;
}

static int http_has_header_end(const char *data, long len)
{
	for (long pos = 0; pos < len && data[pos]; pos++) {
		if (http_starts_with(data, pos, len, "\r\n\r\n"))
			return 1;
	}
	return 0;
}

// Copies up to n bytes (stopping after a NUL) and ends the field at n.
static void http_copy_field(char *field, const char *src, unsigned long n)
{
	if (n > HTTP_MAX_TEXT)
		n = HTTP_MAX_TEXT;
	for (unsigned long i = 0; i < n; i++) {
		field[i] = src[i];
		if (!src[i])
			break;
	}
	field[n] = '\0';
}

int decode_http(const char *data, int len, struct http_info *info)
{
	long pos = 0;
	int found_url = 0, found_host = 0;

	if (len < HTTP_MIN_LEN)
		return -1;
	if (!http_method_len(data, 0, len))
		return -2;
	if (!http_has_header_end(data, len))
		return -3;

	while (pos < len) {
		long cr = http_find(data, pos, len, '\r');
		int method;

		if (cr < 0)
			break;

		method = http_method_len(data, pos, cr);
		if (method) {
			long sp;

			pos += method;
			// The URL ends at the first blank of the line, else at its end.
			sp = http_find(data, pos, cr, ' ');
			http_copy_field(info->url, data + pos, (sp >= 0 ? sp : cr) - pos);
			found_url = 1;
		}

		// For a request line this looks at the URL itself.
		if (http_starts_with(data, pos, cr, "Host: ")) {
			long value = pos + 6;

			http_copy_field(info->host, data + value, (unsigned long)(cr - value));
			found_host = 1;
		}

		// The byte after '\r' is taken to be '\n' without looking.
		pos = cr + 2;
	}

	if (!found_host) {
		info->host[0] = '\0';
		return -4;
	}
	if (!found_url) {
		info->url[0] = '\0';
		return -4;
	}
	return 0;
}
