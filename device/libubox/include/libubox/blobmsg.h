/*
 * Named, typed values in blobs: the content of bus messages. A value is an extended attribute whose id is its
 * type and whose payload begins with its name: u16 length, the name, a zero, padded to four. Members of
 * arrays have an empty name.
 *
 * Values from elsewhere are reached through blobmsg_parse, which checks what it gives out, or are checked one
 * by one with blobmsg_check_attr; the accessors trust them.
 */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include "blob.h"

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1 << BLOBMSG_ALIGN) - 1) & ~((1 << BLOBMSG_ALIGN) - 1))

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
};

struct blobmsg_hdr {
    uint16_t namelen;
} __attribute__((packed));

struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

static inline int blobmsg_hdrlen(unsigned int namelen) {
    return (int)BLOBMSG_PADDING(sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline enum blobmsg_type blobmsg_type(const struct blob_attr *attr) {
    return (enum blobmsg_type)blob_id(attr);
}

/// Length of the name of a value; 0 also for an attribute that has none or is too short for one.
static inline unsigned int blobmsg_namelen(const struct blob_attr *attr) {
    uint16_t len;

    if (!blob_is_extended(attr) || blob_len(attr) < sizeof(len))
        return 0;
    memcpy(&len, blob_data(attr), sizeof(len));
    return be16_to_cpu(len);
}

static inline const char *blobmsg_name(const struct blob_attr *attr) {
    if (!blob_is_extended(attr) || blob_len(attr) <= sizeof(struct blobmsg_hdr))
        return "";
    return (const char *)blob_data(attr) + sizeof(struct blobmsg_hdr);
}

/// The value itself, behind the name.
static inline void *blobmsg_data(const struct blob_attr *attr) {
    char *data = (char *)blob_data(attr);

    return blob_is_extended(attr) ? data + blobmsg_hdrlen(blobmsg_namelen(attr)) : data;
}

/// Length of the value itself.
static inline size_t blobmsg_data_len(const struct blob_attr *attr) {
    size_t header = (size_t)((char *)blobmsg_data(attr) - (char *)blob_data(attr));

    return header < blob_len(attr) ? blob_len(attr) - header : 0;
}

static inline size_t blobmsg_len(const struct blob_attr *attr) {
    return blobmsg_data_len(attr);
}

/// Whether the value lies within `len` bytes, is of a known type with a length that suits it, its name is
/// terminated and, with `name`, not empty. The members of an array or table are not looked at.
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);

/// The number of members of an array or table when all of them hold and are of `type` (UNSPEC: any),
/// otherwise -1.
int blobmsg_check_array(const struct blob_attr *attr, int type);

/// tb[i] becomes the first value that has the name and the type of policy[i] (UNSPEC: any type), null when
/// there is none. `data` and `len` are those of the message: blob_data(msg) and blob_len(msg), or
/// blobmsg_data/blobmsg_len of a table. 0, or -1 for malformed data, and then every tb[i] is null.
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);
/// The same by position, for the members of an array.
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len);

/// Each returns 0, or -1 when the value does not fit; the buffer then stays as it was. A null name is an
/// empty one.
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);
int blobmsg_add_double(struct blob_buf *buf, const char *name, double val);
/// Appends a copy of a value with its name.
int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr);

/// Null when it does not fit, which the closing call accepts.
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val) {
    val = cpu_to_be16(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, sizeof(val));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val) {
    val = cpu_to_be32(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val) {
    val = cpu_to_be64(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, (unsigned int)strlen(string) + 1);
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}
static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

static inline int blobmsg_buf_init(struct blob_buf *buf) {
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr) {
    return *(uint8_t *)blobmsg_data(attr);
}
static inline bool blobmsg_get_bool(struct blob_attr *attr) {
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr) {
    uint16_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr) {
    uint32_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr) {
    uint64_t value;

    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be64_to_cpu(value);
}

static inline double blobmsg_get_double(struct blob_attr *attr) {
    uint64_t bits = blobmsg_get_u64(attr);
    double value;

    memcpy(&value, &bits, sizeof(value));
    return value;
}

/// Null for a null attribute.
static inline char *blobmsg_get_string(struct blob_attr *attr) {
    return attr ? (char *)blobmsg_data(attr) : NULL;
}

/// The members of an array or table (null: none). `rem` is a size_t or an int.
#define blobmsg_for_each_attr(pos, attr, rem)                                               \
    for (rem = (attr) ? blobmsg_data_len(attr) : 0,                                         \
        pos = (struct blob_attr *)((attr) ? blobmsg_data(attr) : NULL);                     \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) && \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                     \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
