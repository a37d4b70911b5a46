#include <libubox/blob.h>
#include <stdlib.h>

/* Attributes under construction are named by their offset, which a move of the buffer does not change.
 * Cookies are these offsets plus one, so that the null cookie stays free for "could not be opened". */
static size_t attr_offset(const struct blob_buf *buf, const struct blob_attr *attr) {
    return (size_t)((const char *)attr - (const char *)buf->buf);
}

static struct blob_attr *attr_at(const struct blob_buf *buf, size_t offset) {
    return (struct blob_attr *)(void *)((char *)buf->buf + offset);
}

static void set_header(struct blob_attr *attr, int id, size_t raw_len) {
    uint32_t word = ((uint32_t)id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;

    attr->id_len = cpu_to_be32(word | (uint32_t)raw_len);
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len) {
    uint32_t word = be32_to_cpu(attr->id_len) & ~(uint32_t)BLOB_ATTR_LEN_MASK;

    attr->id_len = cpu_to_be32(word | (len & BLOB_ATTR_LEN_MASK));
}

void blob_fill_pad(struct blob_attr *attr) {
    size_t len = blob_raw_len(attr);

    memset((char *)attr + len, 0, blob_pad_len(attr) - len);
}

/* Doubling keeps the cost of many small additions linear. */
static bool grow_by_doubling(struct blob_buf *buf, int minlen) {
    size_t needed = (size_t)buf->buflen + (size_t)minlen;
    size_t size = buf->buflen ? (size_t)buf->buflen : 256;
    void *moved;

    while (size < needed)
        size *= 2;
    moved = realloc(buf->buf, size);
    if (!moved)
        return false;
    memset((char *)moved + buf->buflen, 0, size - (size_t)buf->buflen);
    buf->buf = moved;
    buf->buflen = (int)size;
    return true;
}

bool blob_buf_grow(struct blob_buf *buf, int required) {
    size_t head = buf->head ? attr_offset(buf, buf->head) : 0;

    if (required < 0 || (size_t)buf->buflen + (size_t)required > 2 * (size_t)BLOB_ATTR_LEN_MASK)
        return false;
    if (!buf->grow || !buf->grow(buf, required))
        return false;
    buf->head = attr_at(buf, head);
    return true;
}

int blob_buf_init(struct blob_buf *buf, int id) {
    if (!buf->grow)
        buf->grow = grow_by_doubling;
    buf->head = buf->buf;
    if (buf->buflen < (int)sizeof(struct blob_attr) && !blob_buf_grow(buf, sizeof(struct blob_attr)))
        return -1;
    set_header(buf->head, id, sizeof(struct blob_attr));
    return 0;
}

void blob_buf_free(struct blob_buf *buf) {
    free(buf->buf);
    buf->buf = NULL;
    buf->buflen = 0;
    buf->head = NULL;
}

/* Appends room for `size` bytes, a multiple of the alignment, to the open attribute; null leaves all as it
 * was. */
static struct blob_attr *append(struct blob_buf *buf, size_t size) {
    size_t head;
    size_t end;

    if (!buf->head)
        return NULL;
    head = attr_offset(buf, buf->head);
    end = head + blob_pad_len(buf->head);
    if (end + size > BLOB_ATTR_LEN_MASK)
        return NULL;
    if (end + size > (size_t)buf->buflen && !blob_buf_grow(buf, (int)(end + size - (size_t)buf->buflen)))
        return NULL;
    blob_set_raw_len(buf->head, (unsigned int)(end + size - head));
    return attr_at(buf, end);
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload) {
    size_t raw = (size_t)payload + sizeof(struct blob_attr);
    struct blob_attr *attr;

    if (payload < 0 || raw > BLOB_ATTR_LEN_MASK)
        return NULL;
    attr = append(buf, (raw + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1));
    if (!attr)
        return NULL;
    set_header(attr, id, raw);
    blob_fill_pad(attr);
    return attr;
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len) {
    struct blob_attr *attr;

    if (len > BLOB_ATTR_LEN_MASK)
        return NULL;
    attr = blob_new(buf, id, (int)len);
    if (attr && len)
        memcpy(blob_data(attr), ptr, len);
    return attr;
}

struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len) {
    struct blob_attr *attr;

    if (len < sizeof(struct blob_attr) || len > BLOB_ATTR_LEN_MASK)
        return NULL;
    attr = append(buf, (len + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1));
    if (!attr)
        return NULL;
    memcpy(attr, ptr, len);
    memset((char *)attr + len, 0, -(size_t)len & (BLOB_ATTR_ALIGN - 1));
    return attr;
}

void *blob_nest_start(struct blob_buf *buf, int id) {
    size_t outer;
    struct blob_attr *attr;

    if (!buf->head)
        return NULL;
    outer = attr_offset(buf, buf->head);
    attr = blob_new(buf, id, 0);
    if (!attr)
        return NULL;
    buf->head = attr;
    return (void *)(uintptr_t)(outer + 1);
}

void blob_nest_end(struct blob_buf *buf, void *cookie) {
    struct blob_attr *inner = buf->head;
    struct blob_attr *outer;
    size_t end;

    if (!cookie)
        return;
    outer = attr_at(buf, (uintptr_t)cookie - 1);
    end = attr_offset(buf, inner) + blob_pad_len(inner);
    blob_set_raw_len(outer, (unsigned int)(end - attr_offset(buf, outer)));
    buf->head = outer;
}

bool blob_check_type(const void *ptr, unsigned int len, int type) {
    static const unsigned int fixed[BLOB_ATTR_LAST] = {
        [BLOB_ATTR_INT8] = 1,  [BLOB_ATTR_INT16] = 2,  [BLOB_ATTR_INT32] = 4,
        [BLOB_ATTR_INT64] = 8, [BLOB_ATTR_DOUBLE] = 8,
    };

    if (type < 0 || type >= BLOB_ATTR_LAST)
        return false;
    if (fixed[type])
        return len == fixed[type];
    if (type == BLOB_ATTR_STRING)
        return len > 0 && ((const char *)ptr)[len - 1] == '\0';
    return true;
}

static bool attr_fits(struct blob_attr *attr, const struct blob_attr_info *info) {
    unsigned int len = (unsigned int)blob_len(attr);

    if (info->type != BLOB_ATTR_UNSPEC && !blob_check_type(blob_data(attr), len, (int)info->type))
        return false;
    if (len < info->minlen || (info->maxlen && len > info->maxlen))
        return false;
    return !info->validate || info->validate(info, attr);
}

int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max) {
    struct blob_attr *pos;
    size_t rem;
    int found = 0;

    for (int i = 0; i < max; i++)
        data[i] = NULL;
    if (attr_len < sizeof(*attr) || blob_raw_len(attr) < sizeof(*attr) || blob_raw_len(attr) > attr_len)
        return -1;
    blob_for_each_attr(pos, attr, rem) {
        unsigned int id = blob_id(pos);

        if (id >= (unsigned int)max || blob_raw_len(pos) < sizeof(*pos))
            continue;
        if (info && !attr_fits(pos, &info[id]))
            continue;
        if (!data[id])
            found++;
        data[id] = pos;
    }
    return found;
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max) {
    return blob_parse_untrusted(attr, blob_raw_len(attr), data, info, max);
}

struct blob_attr *blob_memdup(struct blob_attr *attr) {
    size_t size = blob_pad_len(attr);
    struct blob_attr *copy = size < sizeof(*attr) ? NULL : malloc(size);

    if (!copy)
        return NULL;
    /* The source may end without its padding. */
    memcpy(copy, attr, blob_raw_len(attr));
    blob_fill_pad(copy);
    return copy;
}

bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2) {
    if (!a1 || !a2)
        return a1 == a2;
    return blob_raw_len(a1) == blob_raw_len(a2) && memcmp(a1, a2, blob_raw_len(a1)) == 0;
}
