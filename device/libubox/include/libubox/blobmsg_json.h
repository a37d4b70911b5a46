/*
 * Blobs to and from JSON. Integers become int32 when they fit, otherwise int64; true and false become int8,
 * null an unspec value. Texts end at a zero character, which blobs cannot hold.
 */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <stdbool.h>

#include "blobmsg.h"

struct json_object;

/// Adds the members of a JSON object. False when it is not an object or does not fit; what was added until
/// then remains.
bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj);

/// Adds one JSON value of any kind (a null pointer is the JSON null).
bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj);

/// Adds the members of the object that `str` is; false for anything else than one valid JSON object.
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);

/// May render `attr` in its own way: a text that the formatter copies, or null for the usual one.
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

/// The JSON text, malloc'ed. With `list`, `attr` is a message and its members are rendered as an object (an
/// array when it is of that type); otherwise it is a value and is rendered after its name, as `"name":value`,
/// when it has one. A negative indent is compact, `{"a":1}`; otherwise lines are indented by tabs, beginning
/// with `indent` of them. Null for a null or malformed attribute, for one that is nested deeper than 128
/// levels, and without memory.
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent);

/// A value alone, without its name; otherwise as above.
char *blobmsg_format_json_value_with_cb(struct blob_attr *attr, blobmsg_json_format_t cb, void *priv,
                                        int indent);

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}

static inline char *blobmsg_format_json_value(struct blob_attr *attr) {
    return blobmsg_format_json_value_with_cb(attr, NULL, NULL, -1);
}

static inline char *blobmsg_format_json_value_indent(struct blob_attr *attr, int indent) {
    return blobmsg_format_json_value_with_cb(attr, NULL, NULL, indent);
}

#endif
