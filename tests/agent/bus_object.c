/* bus_object NAME: a bus object with all the ways in which one can answer, or not. It stays until it is told
 * to go or the bus ends. */
#include <libubox/blobmsg_json.h>
#include <libubus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct blob_buf buf;
static struct ubus_request_data pending;

/* Gives its arguments back. */
static int echo(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                const char *method, struct blob_attr *msg) {
    (void)obj, (void)method;
    return ubus_send_reply(ctx, req, msg);
}

/* Succeeds without a word. */
static int quiet(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                 const char *method, struct blob_attr *msg) {
    (void)ctx, (void)obj, (void)req, (void)method, (void)msg;
    return UBUS_STATUS_OK;
}

/* Answers, and then fails. */
static int refuse(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                  const char *method, struct blob_attr *msg) {
    echo(ctx, obj, req, method, msg);
    return UBUS_STATUS_PERMISSION_DENIED;
}

/* Answers with more levels than any reader follows. */
static int deep(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                const char *method, struct blob_attr *msg) {
    enum { LEVELS = 1500 };
    void *tables[LEVELS];

    (void)msg;
    blob_buf_init(&buf, 0);
    for (int i = 0; i < LEVELS; i++)
        tables[i] = blobmsg_open_table(&buf, "level");
    for (int i = LEVELS; i-- > 0;)
        blobmsg_close_table(&buf, tables[i]);
    return echo(ctx, obj, req, method, buf.head);
}

/* Says that it has been called, and never answers. */
static int hang(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                const char *method, struct blob_attr *msg) {
    (void)obj, (void)msg;
    puts(method);
    fflush(stdout);
    ubus_defer_request(ctx, req, &pending);
    return UBUS_STATUS_OK;
}

/* Answers after `ms` milliseconds with how often it was called and a text of `size` bytes. */
static int work(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                const char *method, struct blob_attr *msg) {
    enum { MS, SIZE };
    static const struct blobmsg_policy policy[] = {
        [MS] = {"ms", BLOBMSG_TYPE_INT32}, [SIZE] = {"size", BLOBMSG_TYPE_INT32}};
    static uint32_t count;
    struct blob_attr *tb[ARRAY_SIZE(policy)];
    char *text;

    (void)obj, (void)method;
    blobmsg_parse(policy, ARRAY_SIZE(policy), tb, blob_data(msg), blob_len(msg));
    if (!tb[MS] || !tb[SIZE] || !(text = calloc(1, blobmsg_get_u32(tb[SIZE]) + 1)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    usleep(blobmsg_get_u32(tb[MS]) * 1000);
    memset(text, 'x', blobmsg_get_u32(tb[SIZE]));
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "count", ++count);
    blobmsg_add_string(&buf, "text", text);
    free(text);
    return ubus_send_reply(ctx, req, buf.head);
}

/* Goes away without an answer. */
static int vanish(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                  const char *method, struct blob_attr *msg) {
    uloop_end();
    return hang(ctx, obj, req, method, msg);
}

/* Notifies its subscribers of `message` under the name `method`. */
static int notify(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                  const char *method, struct blob_attr *msg) {
    enum { METHOD, MESSAGE };
    static const struct blobmsg_policy policy[] = {
        [METHOD] = {"method", BLOBMSG_TYPE_STRING}, [MESSAGE] = {"message", BLOBMSG_TYPE_TABLE}};
    struct blob_attr *tb[ARRAY_SIZE(policy)];
    struct blob_attr *member;
    size_t rem;

    (void)req, (void)method;
    blobmsg_parse(policy, ARRAY_SIZE(policy), tb, blob_data(msg), blob_len(msg));
    if (!tb[METHOD] || !tb[MESSAGE])
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&buf, 0);
    blobmsg_for_each_attr(member, tb[MESSAGE], rem) {
        blobmsg_add_field(&buf, blobmsg_type(member), blobmsg_name(member), blobmsg_data(member),
                          (unsigned int)blobmsg_data_len(member));
    }
    return ubus_notify(ctx, obj, blobmsg_get_string(tb[METHOD]), buf.head, -1);
}

/* Tells whether anybody would hear a notification. */
static int heard(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                 const char *method, struct blob_attr *msg) {
    (void)method, (void)msg;
    blob_buf_init(&buf, 0);
    blobmsg_add_u8(&buf, "heard", obj->has_subscribers);
    return ubus_send_reply(ctx, req, buf.head);
}

/* Notifies its subscribers `count` times of a text of `size` bytes, as fast as it can. */
static int burst(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                 const char *method, struct blob_attr *msg) {
    enum { COUNT, SIZE };
    static const struct blobmsg_policy policy[] = {
        [COUNT] = {"count", BLOBMSG_TYPE_INT32}, [SIZE] = {"size", BLOBMSG_TYPE_INT32}};
    struct blob_attr *tb[ARRAY_SIZE(policy)];
    char *text;

    (void)req;
    blobmsg_parse(policy, ARRAY_SIZE(policy), tb, blob_data(msg), blob_len(msg));
    if (!tb[COUNT] || !tb[SIZE] || !(text = calloc(1, blobmsg_get_u32(tb[SIZE]) + 1)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    memset(text, 'x', blobmsg_get_u32(tb[SIZE]));
    blob_buf_init(&buf, 0);
    blobmsg_add_string(&buf, "text", text);
    free(text);
    for (uint32_t i = 0; i < blobmsg_get_u32(tb[COUNT]); i++)
        ubus_notify(ctx, obj, method, buf.head, -1);
    return UBUS_STATUS_OK;
}

static const struct ubus_method methods[] = {
    UBUS_METHOD_NOARG("echo", echo),     UBUS_METHOD_NOARG("quiet", quiet),
    UBUS_METHOD_NOARG("refuse", refuse), UBUS_METHOD_NOARG("deep", deep),
    UBUS_METHOD_NOARG("hang", hang),     UBUS_METHOD_NOARG("vanish", vanish),
    UBUS_METHOD_NOARG("notify", notify), UBUS_METHOD_NOARG("burst", burst),
    UBUS_METHOD_NOARG("heard", heard),   UBUS_METHOD_NOARG("work", work),
};
static struct ubus_object_type type = UBUS_OBJECT_TYPE("bus_object", methods);

int main(int argc, char **argv) {
    struct ubus_object object = {.type = &type, .methods = methods, .n_methods = ARRAY_SIZE(methods)};
    struct ubus_context *ctx;
    int status;

    if (argc != 2 || uloop_init() < 0 || !(ctx = ubus_connect(getenv("UBUS_SOCKET"))))
        return 1;
    object.name = argv[1];
    status = ubus_add_object(ctx, &object);
    if (status == UBUS_STATUS_OK) {
        ubus_add_uloop(ctx);
        uloop_run();
    }
    ubus_free(ctx);
    uloop_done();
    blob_buf_free(&buf);
    return status;
}
