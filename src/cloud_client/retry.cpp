// When and to which server the client connects again.
//
// A failing server is tried five times more, after random delays that double; then the next address of a
// business server has its turn. When all have failed, the client rests for 150 minutes and begins another
// round; after the third round it goes back to the bootstrap server and enrols anew.

#include <cerrno>
#include <cstring>

#include "cloud_client/cloud_client.h"
#include "common/identity.h"
#include "context.h"
#include "utask/utask.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok {
namespace {

constexpr int retries_max = 5;
constexpr int cycles_max = 3;
constexpr int first_delay_s = 90;
constexpr int wait_long_ms = 150 * 60 * 1000;
constexpr int wait_long_debug_ms = 10000;

void resolve(void *) {
    resolve_server(cc->resolver);
}

void cc_resolv_done(void *) {
    cc->resolving = 0;
    if (cc->resolver.result != 0) {
        qzcap_printf("[ERROR] (cloud) resolv server failed\n");
        cc_set_status_text("平台域名解析失败");
        return cc_retry();
    }
    cc->server_kind = server_current;
    cc->abi_index = cc->resolver.abi_index;
    const server &to = cc->resolver.current;
    qzcap_printf("[INFO] (cloud) connect %s \"%s:%s\"\n", cc->status == cc_bootstrap ? "bss" : "abi", to.host,
                 to.port);
    errno = EINVAL;
    const int fd = usock(USOCK_TCP | USOCK_IPV4ONLY | USOCK_NONBLOCK | USOCK_NUMERIC, to.host, to.port);
    if (fd <= 0) {
        qzcap_printf("[ERROR] (cloud) create socket failed: %s\n", std::strerror(errno));
        cc_set_status_text("创建套接字失败");
        return cc_retry();
    }
    uloop_timeout_cancel(&cc->reconnect_timer);  // the WAN may have armed it while the name was looked up
    stream_open(cc->stream, fd);
    cc->pending_len = 0;
    cc_start_exchange();
}

// The delay in seconds before attempt `count`: within 90 s, then in ranges that double from 90..180 s on.
int retry_delay(int count) {
    const int high = first_delay_s << (count - 1);
    const int delay = _get_random_number(count == 1 ? 0 : high / 2, high);
    if (!g_ctx.debug)
        return delay;
    qzcap_printf("[DEBUG] interval was %d, modify interval to %d\n", delay, count);
    return count;
}

void retry_current() {
    cc->retry_count++;
    qzcap_printf("[INFO] (cloud) retry count %d cycle %d\n", cc->retry_count, cc->cycle_count + 1);
    const int delay = retry_delay(cc->retry_count);
    qzcap_printf("[INFO] (cloud) reconnect current server after %d seconds\n", delay);
    cc_reconnect(delay * 1000);
}

bool has_untried_address() {
    for (const server &address : cc->resolver.abi_addr)
        if (address.state == server_untried)
            return true;
    return false;
}

// The platform does not get its device back by itself: everything starts over.
void return_to_bootstrap() {
    qzcap_printf("[INFO] (cloud) reconnect bss server\n");
    forget_addresses(cc->resolver);
    cc_clear_identity();
    set_server_info();  // the platform sees its settings written twice here
    cc->server_kind = server_bss;
    cc_reconnect(reconnect_now_ms);
}

void retry_next_server() {
    if (has_untried_address()) {
        qzcap_printf("[INFO] (cloud) change abi server addr\n");
        cc->server_kind = server_abi;
        return cc_reconnect(reconnect_now_ms);
    }
    qzcap_printf("[INFO] has not unused abi server\n");
    if (++cc->cycle_count >= cycles_max) {
        cc->cycle_count = 0;
        return return_to_bootstrap();
    }
    cc->server_kind = server_abi;
    cc_wait_long(server_abi);
}

}  // namespace

void cc_run() {
    uloop_timeout_cancel(&cc->reconnect_timer);
    if (cc->resolving) {
        qzcap_printf("[INFO] (cloud) resolving\n");
        return;
    }
    if (cc->server_kind == server_bss)
        cc->status = cc_bootstrap;
    else if (cc->server_kind == server_abi)
        cc->status = cc_challenge;
    server_resolver &resolver = cc->resolver;
    resolver.kind = cc->server_kind;
    resolver.bss = cc->bss;
    resolver.abi_index = cc->abi_index;
    std::memcpy(resolver.abi, cc->abi, sizeof resolver.abi);
    cc->resolving = 1;
    if (utask_asyn_set(nullptr, resolve, cc_resolv_done) < 0) {
        // Nothing else would try again.
        cc->resolving = 0;
        cc_retry();
    }
}

void cc_retry() {
    if (cc->retry_count < retries_max)
        return retry_current();
    cc->retry_count = 0;
    if (cc->status == cc_bootstrap) {
        cc->server_kind = server_bss;
        return cc_wait_long(server_bss);
    }
    retry_next_server();
}

void cc_wait_long(int kind) {
    qzcap_printf("[INFO] (cloud) reconnect %s server after 150 minutes\n",
                 kind == server_bss ? "bss" : "abi");
    int delay = wait_long_ms;
    if (g_ctx.debug) {
        qzcap_printf("[DEBUG] (cloud) modify interval to 10s\n");
        delay = wait_long_debug_ms;
    }
    cc_reconnect(delay);
}

}  // namespace arvok
