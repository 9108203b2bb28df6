#pragma once
// The earlier decoders, the judges of the differential test.
#include "decode/dns.h"
#include "decode/http.h"

namespace reference {
int old_decode_dns(const u8 *msg, int len, struct dns_info *info);
int old_decode_http(const char *data, int len, struct http_info *info);
}
