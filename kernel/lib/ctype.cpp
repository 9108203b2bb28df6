// The kernel's character table and the functions built on it.
#include "linux/ctype.h"
#include "linux/kernel.h"
#include "linux/string.h"

// The model defines the functions behind the macros of linux/string.h.
#undef strcasecmp
#undef strncasecmp

const unsigned char _ctype[] = {
	_C, _C, _C, _C, _C, _C, _C, _C,                                 /* 0-7 */
	_C, _C | _S, _C | _S, _C | _S, _C | _S, _C | _S, _C, _C,        /* 8-15 */
	_C, _C, _C, _C, _C, _C, _C, _C,                                 /* 16-23 */
	_C, _C, _C, _C, _C, _C, _C, _C,                                 /* 24-31 */
	_S | _SP, _P, _P, _P, _P, _P, _P, _P,                           /* 32-39 */
	_P, _P, _P, _P, _P, _P, _P, _P,                                 /* 40-47 */
	_D, _D, _D, _D, _D, _D, _D, _D,                                 /* 48-55 */
	_D, _D, _P, _P, _P, _P, _P, _P,                                 /* 56-63 */
	_P, _U | _X, _U | _X, _U | _X, _U | _X, _U | _X, _U | _X, _U,   /* 64-71 */
	_U, _U, _U, _U, _U, _U, _U, _U,                                 /* 72-79 */
	_U, _U, _U, _U, _U, _U, _U, _U,                                 /* 80-87 */
	_U, _U, _U, _P, _P, _P, _P, _P,                                 /* 88-95 */
	_P, _L | _X, _L | _X, _L | _X, _L | _X, _L | _X, _L | _X, _L,   /* 96-103 */
	_L, _L, _L, _L, _L, _L, _L, _L,                                 /* 104-111 */
	_L, _L, _L, _L, _L, _L, _L, _L,                                 /* 112-119 */
	_L, _L, _L, _P, _P, _P, _P, _C,                                 /* 120-127 */
	0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                 /* 128-143 */
	0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                 /* 144-159 */
	_S | _SP, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, /* 160-175 */
	_P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, _P, /* 176-191 */
	_U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, _U, /* 192-207 */
	_U, _U, _U, _U, _U, _U, _U, _P, _U, _U, _U, _U, _U, _U, _U, _L, /* 208-223 */
	_L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, _L, /* 224-239 */
	_L, _L, _L, _L, _L, _L, _L, _P, _L, _L, _L, _L, _L, _L, _L, _L  /* 240-255 */
};

int kmodel::strcasecmp(const char *s1, const char *s2)
{
	int c1, c2;
	do {
		c1 = tolower(*s1++);
		c2 = tolower(*s2++);
	} while (c1 == c2 && c1 != 0);
	return c1 - c2;
}

int kmodel::strncasecmp(const char *s1, const char *s2, size_t len)
{
	unsigned char c1 = 0, c2 = 0;
	if (len) {
		do {
			c1 = *s1;
			c2 = *s2;
			s1++;
			s2++;
			if (!c1)
				break;
			if (!c2)
				break;
			if (c1 == c2)
				continue;
			c1 = tolower(c1);
			c2 = tolower(c2);
			if (c1 != c2)
				break;
		} while (--len);
	}
	return (int)c1 - (int)c2;
}

#define TOLOWER(x) ((x) | 0x20)

static unsigned int simple_guess_base(const char *cp)
{
	if (cp[0] == '0') {
		if (TOLOWER(cp[1]) == 'x' && isxdigit(cp[2]))
			return 16;
		return 8;
	}
	return 10;
}

unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base)
{
	u32 result = 0;

	if (!base)
		base = simple_guess_base(cp);
	if (base == 16 && cp[0] == '0' && TOLOWER(cp[1]) == 'x')
		cp += 2;
	while (isxdigit(*cp)) {
		unsigned int value = isdigit(*cp) ? *cp - '0' : TOLOWER(*cp) - 'a' + 10;
		if (value >= base)
			break;
		result = result * base + value;
		cp++;
	}
	if (endp)
		*endp = (char *)cp;
	return result;
}
