#pragma once
// Fixed-width kernel types. The model runs on the host's byte order; the
// filter keeps addresses and ports in network order as the kernel does.
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <arpa/inet.h>  // htons/ntohs/htonl/ntohl

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t s8;
typedef int16_t s16;
typedef int32_t s32;
typedef int64_t s64;
typedef uint8_t u_int8_t;
typedef uint16_t u_int16_t;
typedef uint32_t u_int32_t;
typedef uint16_t __be16;
typedef uint32_t __be32;
typedef uint16_t __le16;
typedef uint32_t __le32;
typedef uint16_t __sum16;
typedef uint32_t __wsum;
typedef unsigned int gfp_t;

#define __user
#define __force
#define __init
#define __exit
#define __read_mostly
#define likely(x) __builtin_expect(!!(x), 1)
#define unlikely(x) __builtin_expect(!!(x), 0)
#define noinline __attribute__((noinline))
