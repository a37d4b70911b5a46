/*
 * Small things that the other headers and the users of the library share. The headers of this library carry
 * no linkage guard: C++ includes them inside `extern "C"`.
 */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <endian.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

#ifndef container_of
#define container_of(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))
#endif

#define cpu_to_be64(x) htobe64(x)
#define cpu_to_be32(x) htobe32(x)
#define cpu_to_be16(x) htobe16(x)
#define be64_to_cpu(x) be64toh(x)
#define be32_to_cpu(x) be32toh(x)
#define be16_to_cpu(x) be16toh(x)

/// The base64 text of `len` bytes, terminated. `size` is the room in `dest`, the terminator included: four
/// characters for each three bytes begun, and one. Returns the length of the text or -1 when it does not fit.
int b64_encode(const void *src, size_t len, void *dest, size_t size);

/// The bytes of a terminated base64 text. White space is skipped wherever it stands; the padding must be
/// complete and its spare bits zero. `dest` gets no terminator; null only counts. Returns the number of
/// bytes, or -1 for anything that is not base64 and for bytes that do not fit into `size`.
int b64_decode(const void *text, void *dest, size_t size);

#endif
