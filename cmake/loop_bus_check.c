/* Compiled when the build is configured, against a platform's headers: of what the agent and its desk use,
 * what the libraries got last, and what stands in the bus's messages. */
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubox/usock.h>
#include <libubox/ustream.h>
#include <libubox/utils.h>
#include <libubus.h>

_Static_assert(UBUS_MSG_NOTIFY == 10 && UBUS_ATTR_GROUP == 13 && UBUS_STATUS_CONNECTION_FAILED == 10,
               "other numbers");

int main(void) {
    static struct blob_attr *table[1];
    static const struct blobmsg_policy policy[1] = {{"name", BLOBMSG_TYPE_DOUBLE}};
    static struct blob_buf message;
    struct ubus_context *bus = ubus_connect(NULL);

    if (uloop_init() < 0 || uloop_cancelling() || blob_buf_init(&message, 0) < 0)
        return 1;
    blob_parse_untrusted(message.head, blob_raw_len(message.head), table, NULL, 0);
    blobmsg_add_double(&message, "name", 1.0);
    blobmsg_parse(policy, 1, table, blob_data(message.head), blob_len(message.head));
    return blobmsg_check_attr_len(table[0], true, 8) &&
           ubus_invoke(bus, 1, "send", message.head, NULL, NULL, -1);
}
