// The decoders as they were before they were made fast: byte-by-byte
// searches, owner names read out in full, a scratch copy of the question
// name. Kept only as the judge of differential_test.cpp.
#include "decode/reference.h"

#include "linux/ctype.h"
#include "linux/string.h"

namespace reference {

#define DNS_HDR_LEN 12
#define DNS_RR_FIXED_LEN 10
#define DNS_QUESTION_FIXED_LEN 4
#define DNS_MAX_HOPS 256
#define DNS_FLAG_QR 0x80
#define DNS_TYPE_A 1
#define DNS_TYPE_AAAA 28
#define DNS_CLASS_IN 1
#define DNS_AF_INET 2
#define DNS_AF_INET6 10
#define HTTP_MIN_LEN 18
#define HTTP_MAX_TEXT 255

enum { DNS_KIND_QUERY = 1, DNS_KIND_RESPONSE = 2 };

static inline u16 dns_get16(const u8 *p)
{
	return (u16)(p[0] << 8 | p[1]);
}

static inline u8 dns_opcode(const u8 *msg) { return (msg[2] >> 3) & 0x0f; }
static inline u8 dns_rcode(const u8 *msg) { return msg[3] & 0x0f; }
static inline u16 dns_qdcount(const u8 *msg) { return dns_get16(msg + 4); }
static inline u16 dns_ancount(const u8 *msg) { return dns_get16(msg + 6); }

static u32 dns_check_header(const u8 *msg, int len, u32 *kind)
{
	if (!msg || len < DNS_HDR_LEN)
		return 0;
	if (dns_opcode(msg) != 0)
		return 0;
	if (dns_qdcount(msg) != 1)
		return 0;
	if (!(msg[2] & DNS_FLAG_QR)) {
		*kind = DNS_KIND_QUERY;
		return 1;
	}
	if (dns_ancount(msg) < 1 || dns_ancount(msg) > DNS_MAX_ANSWERS)
		return 0;
	if (dns_rcode(msg) != 0)
		return 0;
	*kind = DNS_KIND_RESPONSE;
	return 1;
}

static u32 extract_name(const u8 *msg, int len, const u8 **cursor, char *out)
{
	long pos = *cursor - msg;
	long resume = -1;
	int written = 0, jumps = 0;

	if (pos < 0 || pos >= len)
		return 0;

	for (;;) {
		u8 b = msg[pos];

		if (b == 0) {
			if (!written)
				return 0;
			out[written - 1] = '\0';
			*cursor = msg + (resume >= 0 ? resume : pos + 1);
			return 1;
		}

		if ((b & 0xc0) == 0xc0) {
			long target;

			if (pos + 2 >= len)
				return 0;
			target = (long)(b & 0x3f) << 8 | msg[pos + 1];
			if (target >= len)
				return 0;
			if (++jumps >= DNS_MAX_HOPS)
				return 0;
			if (resume < 0)
				resume = pos + 2;
			pos = target;
			continue;
		}

		if (written + b + 1 >= DNS_NAME_LEN)
			return 0;
		if (pos + 1 + b >= len)
			return 0;
		for (int i = 0; i < b; i++)
			out[written++] = (char)tolower(msg[pos + 1 + i]);
		out[written++] = '.';
		pos += 1 + b;
	}
}

static long dns_skip_questions(const u8 *msg, int len)
{
	long pos = DNS_HDR_LEN;

	for (int q = 0; q < dns_qdcount(msg); q++) {
		for (;;) {
			u8 b;

			if (pos >= len)
				return -1;
			b = msg[pos];
			if ((b & 0xc0) == 0xc0) {
				pos += 2;
				break;
			}
			if (b == 0) {
				pos += 1;
				break;
			}
			pos += b + 1;
		}
		pos += DNS_QUESTION_FIXED_LEN;
	}
	return pos > len ? -1 : pos;
}

static int dns_read_answer(const u8 *msg, int len, long *pos, char *scratch,
			   struct dns_info *info, int *n)
{
	const u8 *cursor = msg + *pos;
	const u8 *rr;
	u16 type, klass, rdlen;

	if (!extract_name(msg, len, &cursor, scratch))
		return -1;
	rr = cursor;
	if (rr - msg + DNS_RR_FIXED_LEN > len)
		return -1;
	type = dns_get16(rr);
	klass = dns_get16(rr + 2);
	rdlen = dns_get16(rr + 8);
	if (rr - msg + DNS_RR_FIXED_LEN + rdlen > len)
		return -1;

	rr += DNS_RR_FIXED_LEN;
	if (klass == DNS_CLASS_IN && type == DNS_TYPE_A && rdlen == 4) {
		memcpy(info->addrs[*n].addr, rr, 4);
		info->addrs[*n].family = DNS_AF_INET;
		(*n)++;
	} else if (klass == DNS_CLASS_IN && type == DNS_TYPE_AAAA && rdlen == 16) {
		memcpy(info->addrs[*n].addr, rr, 16);
		info->addrs[*n].family = DNS_AF_INET6;
		(*n)++;
	}
	*pos = rr - msg + rdlen;
	return 0;
}

int old_decode_dns(const u8 *msg, int len, struct dns_info *info)
{
	char scratch[DNS_NAME_LEN];
	const u8 *cursor;
	u32 kind;
	long pos;
	int n = 0;

	if (!dns_check_header(msg, len, &kind))
		return -1;

	memset(scratch, 0, sizeof(scratch));
	memset(info->name, 0, sizeof(info->name));

	cursor = msg + DNS_HDR_LEN;
	if (!extract_name(msg, len, &cursor, scratch))
		return -1;
	if (cursor - msg + DNS_QUESTION_FIXED_LEN > len)
		return -1;
	if (dns_get16(cursor + 2) != DNS_CLASS_IN)
		return 0;

	if (!scratch[0])
		return -1;
	memcpy(info->name, scratch, DNS_NAME_LEN - 1);
	info->name[DNS_NAME_LEN - 1] = '\0';

	if (kind == DNS_KIND_QUERY)
		return 0;

	pos = dns_skip_questions(msg, len);
	if (pos < 0)
		return -1;

	info->count = dns_ancount(msg) & 0xff;
	for (int i = 0; i < info->count; i++) {
		if (dns_read_answer(msg, len, &pos, scratch, info, &n))
			return -1;
	}
	return 0;
}

static int http_starts_with(const char *data, long pos, long len, const char *word)
{
	for (; *word; word++, pos++) {
		if (pos >= len || data[pos] != *word)
			return 0;
	}
	return 1;
}

static int http_method_len(const char *data, long pos, long len)
{
	if (http_starts_with(data, pos, len, "GET ") || http_starts_with(data, pos, len, "PUT "))
		return 4;
	if (http_starts_with(data, pos, len, "HEAD ") || http_starts_with(data, pos, len, "POST "))
		return 5;
	return 0;
}

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

int old_decode_http(const char *data, int len, struct http_info *info)
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
			sp = http_find(data, pos, cr, ' ');
			http_copy_field(info->url, data + pos, (sp >= 0 ? sp : cr) - pos);
			found_url = 1;
		}

		if (http_starts_with(data, pos, cr, "Host: ")) {
			long value = pos + 6;

			http_copy_field(info->host, data + value, (unsigned long)(cr - value));
			found_host = 1;
		}

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

} // namespace reference
