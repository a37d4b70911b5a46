#include "platform/session.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "base/json.h"
#include "base/log.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::platform {

session::session() {
    log_output = qzcap_printf;
    open_ = qzcap_ubus_start(0) == 0;
    if (!open_)
        return;
    qzcap_get_ubus_context()->connection_lost = end_with_bus;
    gate_.emplace();
}

session::~session() {
    gate_.reset();
    if (open_)
        qzcap_ubus_done();
}

// What the library does of its own accord ends the loop only while the descriptor is still watched, which
// after a hang-up it is not. The agent cannot do without the bus, and its supervisor starts it again.
void end_with_bus(ubus_context *) {
    if (!uloop_cancelling())
        log_printf("[ERROR] ubus connection lost\n");
    uloop_end();
}

bool has_unread(const ubus_context &bus) {
    int unread = 0;
    return ioctl(bus.sock.fd, FIONREAD, &unread) == 0 && unread > 0;
}

daemon_wait::daemon_wait() {
    std::signal(SIGALRM, [](int) {
        constexpr char line[] = "[ERROR] ubus does not answer\n";
        static_cast<void>(!write(STDERR_FILENO, line, sizeof line - 1));
        _exit(1);
    });
    alarm(20);
}

daemon_wait::~daemon_wait() {
    alarm(0);
}

std::uint32_t object_id(const std::string &name) {
    const daemon_wait wait;
    return qzcap_get_objid_by_name(name.c_str());
}

std::uint32_t object_id(qzcap_object number) {
    const daemon_wait wait;
    return qzcap_get_objid_by_id(number);
}

namespace {

// The one way from the platform's callback to its owner.
app_registration *registered;

}  // namespace

app_registration::app_registration(handler answer) : answer_(answer), callbacks_{} {
    callbacks_.postmsg = [](ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                            blob_attr *message) {
        const message_scope scope(registered, bind<&app_registration::has_more>(*registered));
        bus_message reply;
        registered->answer_(message, reply);
        if (!request)  // nobody waits for it
            return 0;
        if (blob_raw_len(reply.get()) <= json::text_max) {
            ubus_send_reply(bus, request, reply.get());
            return 0;
        }
        log_printf("[ERROR] reply of %d bytes too long\n", static_cast<int>(blob_raw_len(reply.get())));
        bus_message refusal;
        add_outcome(refusal, "reply too long", "-102");
        ubus_send_reply(bus, request, refusal.get());
        return 0;
    };
    registered = this;
    handle_ = qzcap_register_appmgtcb(nullptr, &callbacks_);
    object_ = handle_ ? object_id(std::string("qzapp.") + program_invocation_short_name) : 0;
}

// Whose it is does not show: whoever waits for an answer here has sent nothing more.
bool app_registration::has_more() {
    return has_unread(*qzcap_get_ubus_context());
}

app_registration::~app_registration() {
    qzcap_unregister_appmgtcb(handle_);
    registered = nullptr;
}

bool is_own_object(std::uint32_t id) {
    return id != 0 && registered && registered->object() == id;
}

}  // namespace arvok::platform
