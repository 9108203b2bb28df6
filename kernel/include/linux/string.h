#pragma once
// The string functions. memcpy, strlen and friends behave the same in the
// kernel and the C library; the case-insensitive compares do not (the
// kernel's fold Latin-1 letters through _ctype), so they come from the model.
#include <string.h>
#include <strings.h>
#include "linux/types.h"

namespace kmodel {
int strcasecmp(const char *s1, const char *s2);
int strncasecmp(const char *s1, const char *s2, size_t n);
}
#define strcasecmp kmodel::strcasecmp
#define strncasecmp kmodel::strncasecmp
#define strnicmp kmodel::strncasecmp
