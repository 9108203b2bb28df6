// libFuzzer target for decode_dns, is_valid_dns and extract_name.
//
// The message is copied into a heap buffer of exactly its size, with no
// byte behind it: the decoder tests every position against len before
// reading it, so AddressSanitizer reports any read outside the message.
// The record's invariants are checked after each call.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "decode/dns.h"

static int is_upper_latin1(unsigned char c)
{
	return (c >= 'A' && c <= 'Z') || (c >= 0xc0 && c <= 0xde && c != 0xd7);
}

static void check_name(const char *name)
{
	// Labels may hold NUL bytes, so the whole field is looked at: every
	// byte went through the lower-casing, and the field ends with a NUL.
	if (strnlen(name, DNS_NAME_LEN) > 254 || name[DNS_NAME_LEN - 1])
		abort();
	for (int i = 0; i < DNS_NAME_LEN; i++) {
		if (is_upper_latin1((unsigned char)name[i]))
			abort();
	}
}

static void check_info(const struct dns_info *info, int ret, u32 valid, u32 kind)
{
	static const struct dns_addr zero = {};
	int filled = 0;

	if (ret != 0 && ret != -1)
		abort();
	if (!valid && ret != -1)
		abort();
	if (info->client != 0)
		abort();
	if (kind == 1 && info->count != 0)
		abort();  // queries never write count
	if (info->count > DNS_MAX_ANSWERS)
		abort();
	for (int i = 0; i < DNS_MAX_ADDRS; i++) {
		const struct dns_addr *a = &info->addrs[i];

		if (a->pad[0] || a->pad[1])
			abort();
		if (a->family == 0) {
			if (memcmp(a, &zero, sizeof(zero)) != 0)
				abort();
			continue;
		}
		if (a->family != 2 && a->family != 10)
			abort();
		if (a->family == 2 && memcmp(a->addr + 4, zero.addr, 12) != 0)
			abort();
		if (i != filled++)
			abort();  // slots are filled from 0 without gaps
	}
	if (filled > info->count || info->addrs[DNS_MAX_ADDRS - 1].family)
		abort();
	if (valid)
		check_name(info->name);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	u8 *msg = (u8 *)malloc(size ? size : 1);
	struct dns_info info;
	char out[DNS_NAME_LEN];
	const u8 *cursor;
	u32 kind = 0, valid;
	int ret;

	memcpy(msg, data, size);
	valid = is_valid_dns(size ? msg : nullptr, (int)size, &kind);

	memset(&info, 0, sizeof(info));
	ret = decode_dns(size ? msg : nullptr, (int)size, &info);
	check_info(&info, ret, valid, kind);

	// A name read from an offset the input picks with its last byte.
	if (size) {
		size_t off = data[size - 1] % size;

		cursor = msg + off;
		memset(out, 0, sizeof(out));
		if (extract_name(msg, (int)size, &cursor, out)) {
			if (cursor <= msg + off || cursor > msg + size)
				abort();
			check_name(out);
		}
	}
	free(msg);
	return 0;
}
