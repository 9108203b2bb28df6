// HTTP request decoder. Every line of the buffer is looked at, the header
// and whatever body lies before len alike: a later request line replaces
// the URL and a later "Host: " line replaces the host, so of pipelined
// requests the last one wins.
//
// All searches stop at the first NUL byte and at data + len, whichever
// comes first, so that nothing behind a NUL is read. The input is never
// written.
#include "decode/http.h"

#include "linux/string.h"

#define HTTP_MIN_LEN 18
#define HTTP_MAX_TEXT 255

// Every search below runs over data[pos, lim), lim being the first NUL at
// or after pos, or len, whichever comes first: no byte from there on is
// looked at.
// The searches use the string library's block-wise scans, so a byte costs
// a fraction of an instruction rather than a call.

// Does the text at data[pos] start with word (of wlen bytes) before lim?
static inline int http_starts_with(const char *data, long pos, long lim, const char *word, long wlen)
{
	return lim - pos >= wlen && !memcmp(data + pos, word, wlen);
}

// Length of the method (with its blank) that data[pos] starts with, or 0.
static int http_method_len(const char *data, long pos, long lim)
{
	switch (data[pos]) {
	case 'G':
		return http_starts_with(data, pos, lim, "GET ", 4) ? 4 : 0;
	case 'P':
		if (http_starts_with(data, pos, lim, "PUT ", 4))
			return 4;
		return http_starts_with(data, pos, lim, "POST ", 5) ? 5 : 0;
	case 'H':
		return http_starts_with(data, pos, lim, "HEAD ", 5) ? 5 : 0;
	}
	return 0;
}

// Offset of the first c in data[pos, lim); -1 if none.
static inline long http_find(const char *data, long pos, long lim, char c)
{
	const char *hit;

	if (pos >= lim)
		return -1;
	hit = (const char *)memchr(data + pos, c, lim - pos);
	return hit ? hit - data : -1;
}

static int http_has_header_end(const char *data, long lim)
{
	for (long cr = http_find(data, 0, lim, '\r'); cr >= 0; cr = http_find(data, cr + 1, lim, '\r')) {
		if (http_starts_with(data, cr, lim, "\r\n\r\n", 4))
			return 1;
	}
	return 0;
}

// Copies n bytes of a line (no NUL lies before lim) and ends the field.
static void http_copy_field(char *field, const char *src, unsigned long n)
{
	if (n > HTTP_MAX_TEXT)
		n = HTTP_MAX_TEXT;
	memcpy(field, src, n);
	field[n] = '\0';
}

int decode_http(const char *data, int len, struct http_info *info)
{
	long pos = 0, lim;
	int found_url = 0, found_host = 0;

	if (len < HTTP_MIN_LEN)
		return -1;
	lim = strnlen(data, len);
	if (!http_method_len(data, 0, lim))
		return -2;
	if (!http_has_header_end(data, lim))
		return -3;

	while (pos < len) {
		long cr, method;

		// Stepping over the byte after a '\r' can step over a NUL: the
		// searches then run to the next one, as string searches from pos do.
		if (pos > lim)
			lim = pos + strnlen(data + pos, len - pos);
		cr = http_find(data, pos, lim, '\r');
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
		if (http_starts_with(data, pos, cr, "Host: ", 6)) {
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
