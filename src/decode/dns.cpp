// DNS decoder. Works only on the message bytes and the caller's dns_info:
// no allocation, no state, no logging. Every read of the message is tested
// against len first.
#include "decode/dns.h"

#include "linux/ctype.h"
#include "linux/string.h"

#define DNS_HDR_LEN 12
#define DNS_RR_FIXED_LEN 10      // TYPE, CLASS, TTL, RDLENGTH
#define DNS_QUESTION_FIXED_LEN 4 // QTYPE, QCLASS
#define DNS_MAX_HOPS 256

#define DNS_FLAG_QR 0x80
#define DNS_TYPE_A 1
#define DNS_TYPE_AAAA 28
#define DNS_CLASS_IN 1
#define DNS_AF_INET 2
#define DNS_AF_INET6 10

enum { DNS_KIND_QUERY = 1, DNS_KIND_RESPONSE = 2 };

static inline u16 dns_get16(const u8 *p)
{
	return (u16)(p[0] << 8 | p[1]);
}

// Header fields, by their offsets in the 12-byte header.
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

u32 is_valid_dns(const u8 *msg, int len, u32 *kind)
{
	return dns_check_header(msg, len, kind);
}

u32 extract_name(const u8 *msg, int len, const u8 **cursor, char *out)
{
	long pos = *cursor - msg;
	long resume = -1;
	int written = 0, jumps = 0;

	// A name that would start at or past the end fails whatever its first
	// byte, so that byte is not read.
	if (pos < 0 || pos >= len)
		return 0;

	for (;;) {
		u8 b = msg[pos];

		if (b == 0) {
			if (!written)
				return 0;  // the root name
			out[written - 1] = '\0';  // the last dot
			*cursor = msg + (resume >= 0 ? resume : pos + 1);
			return 1;
		}

		if ((b & 0xc0) == 0xc0) {
			long target;

			// The pointer's second byte must lie inside the message.
			if (pos + 2 >= len)
				return 0;
			target = (long)(b & 0x3f) << 8 | msg[pos + 1];
			if (target >= len)
				return 0;
			// The only guard against pointer loops.
			if (++jumps >= DNS_MAX_HOPS)
				return 0;
			if (resume < 0)
				resume = pos + 2;
			pos = target;
			continue;
		}

		// Any other value is a label length, 64..191 included.
		if (written + b + 1 >= DNS_NAME_LEN)
			return 0;  // the label and its dot must fit in 255 bytes
		if (pos + 1 + b >= len)
			return 0;  // a byte must follow the label
		for (int i = 0; i < b; i++)
			out[written++] = (char)tolower(msg[pos + 1 + i]);
		out[written++] = '.';
		pos += 1 + b;
	}
}

// Walks the question section again, byte by byte, without following
// pointers. Returns the offset of the answer section or -1.
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

// Reads one answer record at *pos; a class-IN A or AAAA record of the
// right size fills slot *n.
static int dns_read_answer(const u8 *msg, int len, long *pos, char *scratch,
			   struct dns_info *info, int *n)
{
	const u8 *cursor = msg + *pos;
	const u8 *rr;
	u16 type, klass, rdlen;

	// The owner name only tells where the fixed part begins.
	if (!extract_name(msg, len, &cursor, scratch))
		return -1;
	rr = cursor;
	if (rr - msg + DNS_RR_FIXED_LEN > len)
		return -1;
	type = dns_get16(rr);
	klass = dns_get16(rr + 2);
	rdlen = dns_get16(rr + 8);  // after the TTL, which is not used
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

int decode_dns(const u8 *msg, int len, struct dns_info *info)
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
	// QTYPE is not used; QCLASS decides whether the name is taken.
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
		// Slots filled before a failing record stay; the result says -1.
		if (dns_read_answer(msg, len, &pos, scratch, info, &n))
			return -1;
	}
	return 0;
}
