#pragma once
// HTTP request decoder: the request target and the Host value of the
// bytes a forward hook has collected for one connection.
#include "linux/types.h"

#define HTTP_FIELD_LEN 260

// Copied whole (520 bytes) into a rating_request. Each field holds a
// NUL-terminated text of at most 255 characters; the decoder writes at most
// 256 bytes of a field and leaves the rest as the caller had it.
struct http_info {
	char url[HTTP_FIELD_LEN];
	char host[HTTP_FIELD_LEN];
};

// data must be readable and NUL-terminated at data[len] (the collection
// buffer is zero-filled). Returns 0 when both a request line and a
// "Host: " line were found; -1 shorter than 18 bytes, -2 not starting with
// a known method, -3 no "\r\n\r\n" before the first NUL, -4 request line or
// Host line missing (that field is made empty).
int decode_http(const char *data, int len, struct http_info *info);

static_assert(sizeof(struct http_info) == 520, "http_info is 520 bytes");
static_assert(offsetof(struct http_info, host) == 260, "host follows url");
