#include <json-c/json.h>
#include <libubox/blobmsg_json.h>

static bool add_array(struct blob_buf *b, struct json_object *array) {
    size_t n = json_object_array_length(array);

    for (size_t i = 0; i < n; i++)
        if (!blobmsg_add_json_element(b, NULL, json_object_array_get_idx(array, i)))
            return false;
    return true;
}

static bool add_nested(struct blob_buf *b, const char *name, struct json_object *obj, bool array) {
    void *cookie = blobmsg_open_nested(b, name, array);
    bool added = cookie && (array ? add_array(b, obj) : blobmsg_add_object(b, obj));

    blob_nest_end(b, cookie);
    return added;
}

static int add_integer(struct blob_buf *b, const char *name, int64_t value) {
    if (value >= INT32_MIN && value <= INT32_MAX)
        return blobmsg_add_u32(b, name, (uint32_t)value);
    return blobmsg_add_u64(b, name, (uint64_t)value);
}

bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj) {
    switch (json_object_get_type(obj)) {
        case json_type_null:
            return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, NULL, 0) == 0;
        case json_type_boolean:
            return blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0) == 0;
        case json_type_int:
            return add_integer(b, name, json_object_get_int64(obj)) == 0;
        case json_type_double:
            return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
        case json_type_string:
            return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
        case json_type_array:
            return add_nested(b, name, obj, true);
        case json_type_object:
            return add_nested(b, name, obj, false);
    }
    return false;
}

bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj) {
    struct json_object_iterator pos, end;

    if (!json_object_is_type(obj, json_type_object))
        return false;
    pos = json_object_iter_begin(obj);
    end = json_object_iter_end(obj);
    for (; !json_object_iter_equal(&pos, &end); json_object_iter_next(&pos))
        if (!blobmsg_add_json_element(b, json_object_iter_peek_name(&pos), json_object_iter_peek_value(&pos)))
            return false;
    return true;
}

bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str) {
    struct json_tokener *parser = json_tokener_new();
    struct json_object *obj;
    bool added = false;

    if (!parser)
        return false;
    json_tokener_set_flags(parser, JSON_TOKENER_STRICT | JSON_TOKENER_ALLOW_TRAILING_CHARS);
    obj = json_tokener_parse_ex(parser, str, -1);
    if (obj) {
        const char *rest = str + json_tokener_get_parse_end(parser);

        added = rest[strspn(rest, " \t\r\n")] == '\0' && blobmsg_add_object(b, obj);
    }
    json_object_put(obj);
    json_tokener_free(parser);
    return added;
}
