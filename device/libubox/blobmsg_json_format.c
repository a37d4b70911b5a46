#include <inttypes.h>
#include <libubox/blobmsg_json.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

/* Deeper than anything the bus carries; a hostile message could otherwise nest until the stack ends. */
enum { MAX_DEPTH = 128 };

struct writer {
    char *text;
    size_t len;
    size_t size;
    bool failed;
    int indent; /* the level of the line, negative for compact text */
    int depth;
    blobmsg_json_format_t format;
    void *priv;
};

static void put(struct writer *w, const char *text, size_t len) {
    if (w->failed)
        return;
    if (w->size - w->len <= len) {
        size_t size = (w->size + len) * 2 + 64;
        char *moved = realloc(w->text, size);

        if (!moved) {
            w->failed = true;
            return;
        }
        w->text = moved;
        w->size = size;
    }
    memcpy(w->text + w->len, text, len);
    w->len += len;
    w->text[w->len] = '\0';
}

static void put_text(struct writer *w, const char *text) {
    put(w, text, strlen(text));
}

static void put_string(struct writer *w, const char *text) {
    put(w, "\"", 1);
    while (*text) {
        size_t plain = 0;
        char escape[8];

        while ((unsigned char)text[plain] >= 0x20 && text[plain] != '"' && text[plain] != '\\')
            plain++;
        put(w, text, plain);
        text += plain;
        switch (*text) {
            case '\0':
                continue;
            case '"':
            case '\\':
                snprintf(escape, sizeof(escape), "\\%c", *text);
                break;
            case '\b':
                snprintf(escape, sizeof(escape), "\\b");
                break;
            case '\t':
                snprintf(escape, sizeof(escape), "\\t");
                break;
            case '\n':
                snprintf(escape, sizeof(escape), "\\n");
                break;
            case '\r':
                snprintf(escape, sizeof(escape), "\\r");
                break;
            default:
                snprintf(escape, sizeof(escape), "\\u%04x", (unsigned int)(unsigned char)*text);
        }
        put_text(w, escape);
        text++;
    }
    put(w, "\"", 1);
}

/* The shortest text that reads back as the same number, always recognisable as a double. */
static void put_double(struct writer *w, double value) {
    char text[40];
    bool is_double = false;

    if (!isfinite(value)) {
        put_text(w, "null");
        return;
    }
    for (int digits = 15; digits <= 17; digits++) {
        snprintf(text, sizeof(text) - 2, "%.*g", digits, value);
        if (strtod(text, NULL) == value)
            break;
    }
    for (char *c = text; *c; c++) {
        /* The locale's comma is not JSON's. */
        if (*c == ',')
            *c = '.';
        is_double |= *c == '.' || *c == 'e';
    }
    if (!is_double)
        strcat(text, ".0");
    put_text(w, text);
}

static void new_line(struct writer *w) {
    if (w->indent < 0)
        return;
    put(w, "\n", 1);
    for (int i = 0; i < w->indent; i++)
        put(w, "\t", 1);
}

static void put_value(struct writer *w, struct blob_attr *attr);

static void put_name(struct writer *w, struct blob_attr *attr) {
    put_string(w, blobmsg_name(attr));
    put_text(w, w->indent < 0 ? ":" : ": ");
}

static void put_members(struct writer *w, struct blob_attr *attr, bool array) {
    struct blob_attr *member;
    size_t rem;
    bool first = true;

    if (++w->depth > MAX_DEPTH) {
        w->failed = true;
        return;
    }
    put_text(w, array ? "[" : "{");
    w->indent += w->indent >= 0;
    blobmsg_for_each_attr(member, attr, rem) {
        if (w->failed || !blobmsg_check_attr_len(member, false, rem))
            break;
        if (!first)
            put_text(w, ",");
        first = false;
        new_line(w);
        if (!array)
            put_name(w, member);
        put_value(w, member);
    }
    if (rem)
        w->failed = true;
    w->indent -= w->indent > 0;
    if (!first)
        new_line(w);
    put_text(w, array ? "]" : "}");
    w->depth--;
}

static void put_value(struct writer *w, struct blob_attr *attr) {
    const char *own = w->format ? w->format(w->priv, attr) : NULL;
    char number[32];

    if (own) {
        put_text(w, own);
        return;
    }
    switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_UNSPEC:
            put_text(w, "null");
            return;
        case BLOBMSG_TYPE_INT8:
            put_text(w, blobmsg_get_bool(attr) ? "true" : "false");
            return;
        case BLOBMSG_TYPE_INT16:
            snprintf(number, sizeof(number), "%" PRId16, (int16_t)blobmsg_get_u16(attr));
            break;
        case BLOBMSG_TYPE_INT32:
            snprintf(number, sizeof(number), "%" PRId32, (int32_t)blobmsg_get_u32(attr));
            break;
        case BLOBMSG_TYPE_INT64:
            snprintf(number, sizeof(number), "%" PRId64, (int64_t)blobmsg_get_u64(attr));
            break;
        case BLOBMSG_TYPE_DOUBLE:
            put_double(w, blobmsg_get_double(attr));
            return;
        case BLOBMSG_TYPE_STRING:
            put_string(w, blobmsg_data(attr));
            return;
        case BLOBMSG_TYPE_ARRAY:
        case BLOBMSG_TYPE_TABLE:
            put_members(w, attr, blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
            return;
        default:
            w->failed = true;
            return;
    }
    put_text(w, number);
}

static char *finish(struct writer *w) {
    if (!w->failed)
        return w->text;
    free(w->text);
    return NULL;
}

char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent) {
    struct writer w = {.indent = indent < 0 ? -1 : indent, .format = cb, .priv = priv};

    if (!attr || (!list && !blobmsg_check_attr(attr, false)))
        return NULL;
    if (list) {
        put_members(&w, attr, blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
    } else {
        if (*blobmsg_name(attr))
            put_name(&w, attr);
        put_value(&w, attr);
    }
    return finish(&w);
}

char *blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb, void *priv,
                                        int indent) {
    struct writer w = {.indent = indent < 0 ? -1 : indent, .format = cb, .priv = priv};

    if (!attr || !blobmsg_check_attr(attr, false))
        return NULL;
    put_value(&w, attr);
    return finish(&w);
}
