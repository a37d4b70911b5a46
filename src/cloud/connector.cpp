#include "cloud/connector.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/log.h"
#include "base/network.h"
#include "base/random.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok::cloud {
namespace {

constexpr int retries_max = 5;
constexpr int rounds_max = 3;
constexpr int first_delay_s = 90;
constexpr int wait_long_ms = 150 * 60 * 1000;
constexpr int wait_long_debug_ms = 10000;
constexpr int garbled_ms = 30000;
constexpr int change_ms = 1000;

}  // namespace

connector::connector(task_queue &queue, connection &link, settings &settings, bool debug,
                     callback<void()> opened)
    : queue_(queue),
      link_(link),
      settings_(settings),
      debug_(debug),
      opened_(opened),
      reconnection_(bind<&connector::run>(*this)),
      change_(bind<&connector::change>(*this)),
      next_(settings.has_business() ? target::business : target::bootstrap) {
    link_.enter(next_ == target::business ? stage::challenge : stage::bootstrap);
}

const server &connector::used() const {
    if (link_.is_open() || next_ == target::current)
        return connected_;
    if (next_ == target::bootstrap)
        return settings_.bootstrap;
    if (const address *next = known_.untried())
        return settings_.business[next->server_index];
    const auto named = std::find_if(settings_.business.begin(), settings_.business.end(),
                                    [](const server &each) { return !each.empty(); });
    return named == settings_.business.end() ? settings_.business.front() : *named;
}

// --- connecting ---

void connector::run() {
    reconnection_.cancel();
    change_.cancel();  // what it would leave has ended, and it would go to the same server
    if (resolving_) {
        log_printf("[INFO] (cloud) resolving\n");
        return;
    }
    if (next_ == target::bootstrap)
        link_.enter(stage::bootstrap);
    else if (next_ == target::business)
        link_.enter(stage::challenge);
    known_.next = next_;
    known_.bootstrap = settings_.bootstrap;
    known_.business = settings_.business;
    known_.server_index = server_index_;
    // The completion owns the value that the thread works on.
    auto own = std::make_unique<resolution>(known_);
    auto work = make_task([at = own.get()] { at->run(); });
    auto done = make_task([this, own = std::move(own)] { resolved(std::move(*own)); });
    resolving_ = true;
    if (!queue_.run_aside(std::move(work), std::move(done))) {
        // Nothing else would try again.
        resolving_ = false;
        retry();
    }
}

void connector::resolved(resolution outcome) {
    resolving_ = false;
    known_ = std::move(outcome);
    if (!known_.found) {
        log_printf("[ERROR] (cloud) resolv server failed\n");
        note("平台域名解析失败");
        return retry();
    }
    next_ = target::current;
    server_index_ = known_.server_index;
    connect();
}

void connector::connect() {
    const server &to = known_.current;
    connected_ = link_.at() == stage::bootstrap ? settings_.bootstrap : settings_.business[server_index_];
    log_printf("[INFO] (cloud) connect %s \"%s:%s\"\n", link_.at() == stage::bootstrap ? "bss" : "abi",
               to.host.c_str(), to.port.c_str());
    errno = EINVAL;
    const int fd =
        usock(USOCK_TCP | USOCK_IPV4ONLY | USOCK_NONBLOCK | USOCK_NUMERIC, to.host.c_str(), to.port.c_str());
    if (fd < 0) {
        log_printf("[ERROR] (cloud) create socket failed: %s\n", std::strerror(errno));
        note("创建套接字失败");
        return retry();
    }
    reconnection_.cancel();  // the WAN may have armed it while the name was looked up
    notice_dead_peer(fd);
    link_.open(fd);
    opened_();
}

void connector::reconnect(int ms) {
    link_.disconnect();
    reconnection_.arm(ms);
}

void connector::rest() {
    link_.disconnect();
    change_.cancel();
}

void connector::change_bootstrap() {
    known_.forget_addresses();
    server_index_ = 0;
    settings_.clear_identity();
    next_ = target::bootstrap;
    change_.arm(change_ms);
}

void connector::change() {
    link_.disconnect();
    run();
}

// --- after a failure ---

void connector::after(failure why) {
    switch (why) {
        case failure::garbled:
            return reconnect(garbled_ms);
        case failure::broken:
            note("TCP连接断开");
            return retry();
        case failure::unanswered:
            note("未收到平台响应报文");
            return link_.at() == stage::connected ? reconnect(reconnect_now_ms) : retry();
        case failure::not_queued:
            return retry();
    }
}

void connector::retry() {
    if (retries_ < retries_max)
        return retry_current();
    retries_ = 0;
    if (link_.at() == stage::bootstrap) {
        next_ = target::bootstrap;
        return wait_long(target::bootstrap);
    }
    retry_next_server();
}

void connector::retry_current() {
    retries_++;
    log_printf("[INFO] (cloud) retry count %d cycle %d\n", retries_, rounds_ + 1);
    const int delay = delay_s(retries_);
    log_printf("[INFO] (cloud) reconnect current server after %d seconds\n", delay);
    reconnect(delay * 1000);
}

// Within 90 s, then in ranges that double from 90..180 s on.
int connector::delay_s(int attempt) const {
    const int high = first_delay_s << (attempt - 1);
    const int delay = random_number(attempt == 1 ? 0 : high / 2, high);
    if (!debug_)
        return delay;
    log_printf("[DEBUG] interval was %d, modify interval to %d\n", delay, attempt);
    return attempt;
}

void connector::retry_next_server() {
    if (known_.untried()) {
        log_printf("[INFO] (cloud) change abi server addr\n");
        next_ = target::business;
        return reconnect(reconnect_now_ms);
    }
    log_printf("[INFO] has not unused abi server\n");
    if (++rounds_ >= rounds_max) {
        rounds_ = 0;
        return return_to_bootstrap();
    }
    next_ = target::business;
    wait_long(target::business);
}

// The platform does not get its device back by itself: everything starts over.
void connector::return_to_bootstrap() {
    log_printf("[INFO] (cloud) reconnect bss server\n");
    known_.forget_addresses();
    settings_.clear_identity();
    settings_.store();  // the platform sees its settings written twice here
    next_ = target::bootstrap;
    reconnect(reconnect_now_ms);
}

void connector::wait_long(target kind) {
    log_printf("[INFO] (cloud) reconnect %s server after 150 minutes\n",
               kind == target::bootstrap ? "bss" : "abi");
    int delay = wait_long_ms;
    if (debug_) {
        log_printf("[DEBUG] (cloud) modify interval to 10s\n");
        delay = wait_long_debug_ms;
    }
    reconnect(delay);
}

}  // namespace arvok::cloud
