#include "common/escape.h"

#include <cstdio>

namespace dnshook {

std::string escape_bytes(std::string_view s, bool keep_space)
{
	unsigned char lowest = keep_space ? 0x20 : 0x21;
	std::string o;
	o.reserve(s.size());
	for (unsigned char c : s) {
		if (c >= lowest && c < 0x7f && c != '\\') {
			o += char(c);
			continue;
		}
		char e[5];
		snprintf(e, sizeof(e), "\\x%02x", c);
		o += e;
	}
	return o;
}

} // namespace dnshook
