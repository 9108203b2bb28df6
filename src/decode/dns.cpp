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

// A name read without a fault: where it starts, how many bytes it takes
// (its dots included) and how many pointers it follows.
struct dns_known_name {
	long start;
	int written;
	int jumps;
};

// extract_name, telling the caller what it walked when it succeeds.
static u32 dns_read_name(const u8 *msg, int len, const u8 **cursor, char *out, struct dns_known_name *seen)
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
			if (seen) {
				seen->start = *cursor - msg;
				seen->written = written;
				seen->jumps = jumps;
			}
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

u32 extract_name(const u8 *msg, int len, const u8 **cursor, char *out)
{
	return dns_read_name(msg, len, cursor, out, NULL);
}

// The walk of extract_name without the text: the same checks, in the same
// order, so it fails exactly where extract_name fails and leaves *cursor
// where extract_name leaves it. Only the count of bytes a name would take
// is kept, so a label costs the same whatever its length. Answer owner
// names are read only to find where their records begin.
//
// Owner names mostly end in a pointer to the question's name, which has
// already been walked from its fixed place without a fault, taking n bytes
// and k pointers. Arriving there with written bytes and jumps pointers,
// the rest of the walk is known: every check it would make passes except,
// at its last label or pointer, written + n reaching 256 or jumps + k
// reaching 256; and the cursor is already set.
static u32 dns_skip_name(const u8 *msg, int len, const u8 **cursor, const struct dns_known_name *known)
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
			if (target == known->start) {
				if (written + known->written >= DNS_NAME_LEN ||
				    jumps + known->jumps >= DNS_MAX_HOPS)
					return 0;
				*cursor = msg + resume;
				return 1;
			}
			pos = target;
			continue;
		}
		if (written + b + 1 >= DNS_NAME_LEN)
			return 0;
		if (pos + 1 + b >= len)
			return 0;
		written += b + 1;
		pos += 1 + b;
	}
}

// Reads one answer record at *pos; a class-IN A or AAAA record of the
// right size fills slot *n.
static int dns_read_answer(const u8 *msg, int len, long *pos, const struct dns_known_name *question,
			   struct dns_info *info, int *n)
{
	const u8 *cursor = msg + *pos;
	const u8 *rr;
	u16 type, klass, rdlen;

	// The owner name only tells where the fixed part begins.
	if (!dns_skip_name(msg, len, &cursor, question))
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
	struct dns_known_name question;
	const u8 *cursor;
	u32 kind;
	long pos;
	int n = 0;

	if (!dns_check_header(msg, len, &kind))
		return -1;

	// The question name is read straight into info->name: past its NUL the
	// field stays zero, as a copy of a zeroed scratch name would leave it.
	// Wherever the name is not taken, the field is made all zero again.
	memset(info->name, 0, sizeof(info->name));
	cursor = msg + DNS_HDR_LEN;
	if (!dns_read_name(msg, len, &cursor, info->name, &question))
		goto drop_name_fail;
	// QTYPE is not used; QCLASS decides whether the name is taken.
	if (cursor - msg + DNS_QUESTION_FIXED_LEN > len)
		goto drop_name_fail;
	if (dns_get16(cursor + 2) != DNS_CLASS_IN) {
		memset(info->name, 0, sizeof(info->name));
		return 0;
	}
	if (!info->name[0])
		goto drop_name_fail;

	if (kind == DNS_KIND_QUERY)
		return 0;

	// The one question ends where its name, read without a fault, ended
	// in place (after its zero byte or its first pointer), plus QTYPE and
	// QCLASS, which were found to lie inside the message. Walking the
	// section again byte by byte, without following pointers, ends there
	// too.
	pos = cursor - msg + DNS_QUESTION_FIXED_LEN;

	info->count = dns_ancount(msg) & 0xff;
	for (int i = 0; i < info->count; i++) {
		// Slots filled before a failing record stay; the result says -1.
		if (dns_read_answer(msg, len, &pos, &question, info, &n))
			return -1;
	}
	return 0;

drop_name_fail:
	memset(info->name, 0, sizeof(info->name));
	return -1;
}
