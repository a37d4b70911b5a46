#include <libubox/blobmsg.h>

/* The blob type that a value of each kind must pass for. */
static const int blob_type[__BLOBMSG_TYPE_LAST] = {
    [BLOBMSG_TYPE_UNSPEC] = BLOB_ATTR_UNSPEC, [BLOBMSG_TYPE_ARRAY] = BLOB_ATTR_NESTED,
    [BLOBMSG_TYPE_TABLE] = BLOB_ATTR_NESTED,  [BLOBMSG_TYPE_STRING] = BLOB_ATTR_STRING,
    [BLOBMSG_TYPE_INT64] = BLOB_ATTR_INT64,   [BLOBMSG_TYPE_INT32] = BLOB_ATTR_INT32,
    [BLOBMSG_TYPE_INT16] = BLOB_ATTR_INT16,   [BLOBMSG_TYPE_INT8] = BLOB_ATTR_INT8,
    [BLOBMSG_TYPE_DOUBLE] = BLOB_ATTR_DOUBLE,
};

static bool name_holds(const struct blob_attr *attr, bool name) {
    unsigned int namelen;

    if (!blob_is_extended(attr))
        return !name;
    /* The shortest header is a length, an empty name, its zero, and the padding. */
    if (blob_len(attr) < (size_t)blobmsg_hdrlen(0))
        return false;
    namelen = blobmsg_namelen(attr);
    if ((size_t)blobmsg_hdrlen(namelen) > blob_len(attr))
        return false;
    return blobmsg_name(attr)[namelen] == '\0' && (!name || namelen > 0);
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len) {
    if (len < sizeof(*attr) || blob_raw_len(attr) < sizeof(*attr) || blob_raw_len(attr) > len)
        return false;
    if (blob_id(attr) > BLOBMSG_TYPE_LAST || !name_holds(attr, name))
        return false;
    return blob_check_type(blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr),
                           blob_type[blob_id(attr)]);
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name) {
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array(const struct blob_attr *attr, int type) {
    bool named = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
    struct blob_attr *pos;
    size_t rem;
    int members = 0;

    if (type < 0 || type > BLOBMSG_TYPE_LAST || !blobmsg_check_attr(attr, false))
        return -1;
    if (!named && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY)
        return -1;
    blobmsg_for_each_attr(pos, attr, rem) {
        if (type != BLOBMSG_TYPE_UNSPEC && (int)blob_id(pos) != type)
            return -1;
        if (!blobmsg_check_attr_len(pos, named, rem))
            return -1;
        members++;
    }
    return rem ? -1 : members;
}

static int malformed(struct blob_attr **tb, int n) {
    for (int i = 0; i < n; i++)
        tb[i] = NULL;
    return -1;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len) {
    struct blob_attr *attr;
    size_t rem = len;

    malformed(tb, policy_len);
    if (!data || !len)
        return 0;
    __blob_for_each_attr(attr, data, rem) {
        if (!blobmsg_check_attr_len(attr, false, rem))
            return malformed(tb, policy_len);
        for (int i = 0; i < policy_len; i++) {
            if (!policy[i].name || tb[i])
                continue;
            if (policy[i].type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(attr) != policy[i].type)
                continue;
            if (strcmp(policy[i].name, blobmsg_name(attr)) == 0)
                tb[i] = attr;
        }
    }
    return rem ? malformed(tb, policy_len) : 0;
}

int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len) {
    struct blob_attr *attr;
    size_t rem = len;
    int i = 0;

    malformed(tb, policy_len);
    if (!data || !len)
        return 0;
    __blob_for_each_attr(attr, data, rem) {
        if (!blobmsg_check_attr_len(attr, false, rem))
            return malformed(tb, policy_len);
        if (i < policy_len && (policy[i].type == BLOBMSG_TYPE_UNSPEC || blobmsg_type(attr) == policy[i].type))
            tb[i] = attr;
        i++;
    }
    return rem ? malformed(tb, policy_len) : 0;
}

/* Appends a value with its name and room for `len` bytes. */
static struct blob_attr *new_value(struct blob_buf *buf, int type, const char *name, unsigned int len) {
    size_t namelen = name ? strlen(name) : 0;
    uint16_t wire_len = cpu_to_be16((uint16_t)namelen);
    int header;
    struct blob_attr *attr;
    char *pos;

    if (namelen > UINT16_MAX || len > BLOB_ATTR_LEN_MASK || type < 0 || type > BLOBMSG_TYPE_LAST)
        return NULL;
    header = blobmsg_hdrlen((unsigned int)namelen);
    attr = blob_new(buf, type, header + (int)len);
    if (!attr)
        return NULL;
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    pos = blob_data(attr);
    memset(pos, 0, (size_t)header);
    memcpy(pos, &wire_len, sizeof(wire_len));
    if (namelen)
        memcpy(pos + sizeof(wire_len), name, namelen);
    return attr;
}

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len) {
    struct blob_attr *attr = new_value(buf, type, name, len);

    if (!attr)
        return -1;
    if (len)
        memcpy(blobmsg_data(attr), data, len);
    return 0;
}

int blobmsg_add_double(struct blob_buf *buf, const char *name, double val) {
    uint64_t bits;

    memcpy(&bits, &val, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr) {
    return blobmsg_add_field(buf, (int)blob_id(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array) {
    size_t outer;
    struct blob_attr *attr;

    if (!buf->head)
        return NULL;
    outer = (size_t)((char *)buf->head - (char *)buf->buf);
    attr = new_value(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!attr)
        return NULL;
    buf->head = attr;
    /* The cookie that blob_nest_end takes: the offset of the outer attribute plus one. */
    return (void *)(uintptr_t)(outer + 1);
}
