// Bytes from packets, replies and control-file writes, made safe for a line
// of a log or a terminal.
#pragma once

#include <string>
#include <string_view>

namespace dnshook {

// `s` with every byte that is not printable ASCII, and the backslash, written
// as \xNN; the space is kept when `keep_space`, escaped otherwise (for a
// field that must stay one word). The result holds no control byte, so it
// cannot split a line or forge another one, and reads back unambiguously.
std::string escape_bytes(std::string_view s, bool keep_space);

} // namespace dnshook
