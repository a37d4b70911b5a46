/*
 * Binary attributes. An attribute is a big-endian word, bit 31 "extended", bits 24 to 30 its id, bits 0 to 23
 * its length with this header, then the payload; the next attribute begins at the next multiple of four. A
 * payload may be attributes again.
 *
 * The accessors trust the attribute. What comes from elsewhere goes through blob_parse_untrusted or
 * blobmsg_check_attr first.
 */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "utils.h"

#define BLOB_COOKIE void *

enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
    uint32_t id_len;
} __attribute__((packed));

struct blob_attr_info {
    unsigned int type;    ///< BLOB_ATTR_*
    unsigned int minlen;  ///< of the payload, 0 for any
    unsigned int maxlen;
    bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

/// An attribute under construction. Zeroed before the first blob_buf_init.
struct blob_buf {
    struct blob_attr
        *head;  ///< the attribute that additions go to; the whole message when no nesting is open
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr) {
    return (void *)(uintptr_t)(attr + 1);
}

static inline unsigned int blob_id(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/// Length with the header, without padding.
static inline size_t blob_raw_len(const struct blob_attr *attr) {
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/// Length of the payload.
static inline size_t blob_len(const struct blob_attr *attr) {
    size_t raw = blob_raw_len(attr);

    return raw < sizeof(*attr) ? 0 : raw - sizeof(*attr);
}

/// Length with the header and the padding.
static inline size_t blob_pad_len(const struct blob_attr *attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr) {
    return *(const uint8_t *)blob_data(attr);
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr) {
    uint16_t value;

    memcpy(&value, blob_data(attr), sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr) {
    uint32_t value;

    memcpy(&value, blob_data(attr), sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr) {
    uint64_t value;

    memcpy(&value, blob_data(attr), sizeof(value));
    return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr) {
    return (int8_t)blob_get_u8(attr);
}
static inline int16_t blob_get_int16(const struct blob_attr *attr) {
    return (int16_t)blob_get_u16(attr);
}
static inline int32_t blob_get_int32(const struct blob_attr *attr) {
    return (int32_t)blob_get_u32(attr);
}
static inline int64_t blob_get_int64(const struct blob_attr *attr) {
    return (int64_t)blob_get_u64(attr);
}
static inline const char *blob_get_string(const struct blob_attr *attr) {
    return (const char *)blob_data(attr);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr) {
    return (struct blob_attr *)(void *)((char *)(uintptr_t)attr + blob_pad_len(attr));
}

/// Empties the buffer and starts an attribute with this id. 0, or -1 without memory.
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);

/// Makes room for `required` more bytes; false without memory or past the largest attribute (16 MiB - 1), and
/// the content stays as it is.
bool blob_buf_grow(struct blob_buf *buf, int required);

/// Appends an attribute with room for `payload` bytes; null when it does not fit. Valid until the next
/// addition.
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);

/// Opens an attribute whose payload is what is added until blob_nest_end. Null without memory; the cookie
/// stays valid when the buffer grows, and ending with a null cookie does nothing.
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/// Appends an attribute with a copy of the payload; null when it does not fit.
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
/// Appends whole attributes, headers included.
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/// For attributes that are written by hand: the padding zeroed, the length set.
void blob_fill_pad(struct blob_attr *attr);
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

/// Whether a payload can be of the BLOB_ATTR_* type: numbers by their length, texts by their terminator.
bool blob_check_type(const void *ptr, unsigned int len, int type);

/// Sorts the members of `attr`, of which `attr_len` bytes exist, into data[id] (null where absent; the last
/// one wins). `info` (or null) says what a member must be; others are left out. Returns how many were found;
/// members stop at the first length that does not hold, and -1 says that the attribute itself is longer than
/// `attr_len`.
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);
/// The same for an attribute whose own length is known to hold.
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max);

/// A copy for free(), or null.
struct blob_attr *blob_memdup(struct blob_attr *attr);
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str) {
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val) {
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val) {
    val = cpu_to_be16(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val) {
    val = cpu_to_be32(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val) {
    val = cpu_to_be64(val);
    return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/// The attributes in `rem` bytes that begin at `pos`, up to the first whose length does not hold.
#define __blob_for_each_attr(pos, attr, rem)                                                \
    for (pos = (struct blob_attr *)(attr);                                                  \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) && \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                     \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

/// The members of `attr` (null: none). `rem` is a size_t or an int.
#define blob_for_each_attr(pos, attr, rem)                                                               \
    for (rem = (attr) ? blob_len(attr) : 0, pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL); \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&              \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                                  \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
