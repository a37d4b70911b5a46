// The agent's life: options, platform session, modules, loop, and everything back in its order.

#include <fcntl.h>
#include <unistd.h>

#include "arvok/app_messages.h"
#include "arvok/options.h"
#include "arvok/platform_events.h"
#include "common/text.h"
#include "context.h"
#include "utask/utask.h"

namespace arvok {
namespace {

constexpr int exit_no_bus = 255;
constexpr unsigned retry_device_s = 5;
constexpr char vsie_owner[] = "arvokclt";

const qzcap_appmgtcb cbs{nullptr, nullptr, arvok_postmsg, nullptr};

// A socket must never get a standard descriptor's number: 0 would read as "not connected".
void keep_standard_descriptors() {
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

void reset_context() {
    g_ctx = {};
    _strlcpy(g_ctx.version, "1.0.7", sizeof g_ctx.version);
    _strlcpy(g_ctx.arch, "ipq5018x", sizeof g_ctx.arch);
}

void wait_for_device() {
    while (update_dev_info() != 0) {
        qzcap_printf("[ERROR] update_dev_info failed\n");
        sleep(retry_device_s);
    }
}

void read_switches() {
    const wifi_switch_ptr switches(qzcap_get_wifi_switch());
    if (!switches)
        return;
    if (_strcmp(switches->wifiswitch, "on") == 0)
        g_ctx.wifi_switch_on = 1;
    if (_strcmp(switches->arvoksync, "on") == 0)
        ec->sync_on = 1;
}

int run(int argc, char **argv) {
    keep_standard_descriptors();
    reset_context();
    parse_options(argc, argv);
    apply_test_mode();

    if (qzcap_ubus_start(0) != 0)
        return exit_no_bus;
    g_ctx.appmgt_handle = qzcap_register_appmgtcb(nullptr, &cbs);
    wait_for_device();
    subscribe_platform_events();
    read_switches();
    qzcap_delete_vsie_beacontx_by_name(vsie_owner, nullptr);

    utask_init();
    ec_init();
    cc_init();
    ls_init();
    extcc_init();
    ec_run();
    cc_run();
    ls_run();
    extcc_run();
    uloop_run_timeout(-1);

    cc_done();
    ec_done();
    ls_done();
    extcc_done();
    utask_done();
    unsubscribe_platform_events();
    qzcap_unregister_appmgtcb(g_ctx.appmgt_handle);
    qzcap_ubus_done();
    release_device_info();
    blob_buf_free(&g_ctx.blob_buf);
    return 0;
}

}  // namespace
}  // namespace arvok

int main(int argc, char **argv) {
    return arvok::run(argc, argv);
}
