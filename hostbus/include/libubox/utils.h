/* Small helpers shared by the libubox subset: array size, byte order, attributes. */
#ifndef __LIBUBOX_UTILS_H
#define __LIBUBOX_UTILS_H

#include <byteswap.h>
#include <endian.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif

/* One zeroed allocation split into several parts:
 * calloc_a(sizeof(*s), &name, name_len + 1, &data, data_len) returns s and sets
 * name and data to the (aligned) memory that follows it. */
void* __calloc_a(size_t len, ...);
#define calloc_a(len, ...) __calloc_a(len, ##__VA_ARGS__, NULL)

#if __BYTE_ORDER == __LITTLE_ENDIAN
#define cpu_to_be64(x) ((uint64_t)bswap_64((uint64_t)(x)))
#define cpu_to_be32(x) ((uint32_t)bswap_32((uint32_t)(x)))
#define cpu_to_be16(x) ((uint16_t)bswap_16((uint16_t)(x)))
#define cpu_to_le64(x) ((uint64_t)(x))
#define cpu_to_le32(x) ((uint32_t)(x))
#define cpu_to_le16(x) ((uint16_t)(x))
#else
#define cpu_to_be64(x) ((uint64_t)(x))
#define cpu_to_be32(x) ((uint32_t)(x))
#define cpu_to_be16(x) ((uint16_t)(x))
#define cpu_to_le64(x) ((uint64_t)bswap_64((uint64_t)(x)))
#define cpu_to_le32(x) ((uint32_t)bswap_32((uint32_t)(x)))
#define cpu_to_le16(x) ((uint16_t)bswap_16((uint16_t)(x)))
#endif

#define be64_to_cpu(x) cpu_to_be64(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be16_to_cpu(x) cpu_to_be16(x)
#define le64_to_cpu(x) cpu_to_le64(x)
#define le32_to_cpu(x) cpu_to_le32(x)
#define le16_to_cpu(x) cpu_to_le16(x)

#endif
