#include "gateway/connection.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/command.h"
#include "base/files.h"
#include "base/log.h"
#include "base/network.h"
#include "gateway/frame.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok::gateway {
namespace {

constexpr char default_gateway[] = "192.168.1.1";
constexpr char link_port[] = "32768";
constexpr char foreign_client[] = "/usr/bin/kestrau_clt";
constexpr std::size_t enable_text_max = 7;

constexpr int reconnect_ms = 10000;
constexpr int reconnect_no_device_ms = 30000;
constexpr int reconnect_refused_ms = 4 * 3600 * 1000;
constexpr int reconnect_sync_ms = 1000;
constexpr int first_keepalive_ms = 1000;
constexpr int keepalive_ms = 5000;
constexpr int keepalive_ack_ms = 20000;

constexpr long short_connection_s = 30;
constexpr int short_connections_max = 3;

/// How many bytes may wait to be sent before further requests wait, too.
constexpr std::size_t unsent_max = std::size_t{256} * 1024;

// Where another client may own the link, a setting says whether this one runs.
bool is_enabled() {
    if (!file_exists(foreign_client))
        return true;
    const std::optional<std::string> output =
        command_output("uci get network.globals.arvok_enable", enable_text_max);
    if (!output)
        return false;
    const int enable = std::atoi(output->substr(0, output->find('\n')).c_str());
    log_printf("[DEBUG] arvok_enable uci: %d\n", enable);
    return enable != 0;
}

}  // namespace

connection::connection(task_queue &tasks, platform::cache &cache, options where, link_state &state,
                       const listeners &informed)
    : tasks_(tasks),
      cache_(cache),
      where_(std::move(where)),
      state_(state),
      listeners_(informed),
      stream_({.read = bind<&connection::readable>(*this), .broken = bind<&connection::broken>(*this)},
              unsent_max),
      frames_(link_frames, bind<&connection::receive>(*this)),
      outbox_(tasks, stream_,
              {.is_ready = bind<&connection::is_ready>(*this), .write = bind<&connection::write>(*this)},
              {.begin = "[WARNING] (arvok) drop own msgs, ready %d, %d bytes wait\n",
               .end = "[INFO] (arvok) dropped %lu own msgs\n"}),
      reconnect_(bind<&connection::connect>(*this)),
      keepalive_(bind<&connection::send_keepalive>(*this)),
      ack_(stream_, bind<&connection::ack_missing>(*this)),
      keepalive_ack_(stream_, bind<&connection::keepalive_ack_missing>(*this)) {}

// --- connecting ---

// The address of this attempt: the user's, or in turn the default and the one found. Nothing when there is
// none, with the next attempt armed.
std::optional<std::string> connection::next_address() {
    if (where_.address)
        return where_.address;
    default_tried_ = !default_tried_;
    if (default_tried_)
        return default_gateway;
    cache_.expire_device();
    if (!cache_.refresh_device()) {
        log_printf("[WARNING] (arvok) devinfo get failed\n");
        reconnect_.arm(reconnect_no_device_ms);
        return std::nullopt;
    }
    std::string found = gateway_address(cache_.is_router(), view_of(cache_.device().lan_source));
    if (found.empty()) {
        reconnect_.arm(reconnect_ms);
        return std::nullopt;
    }
    return found;
}

void connection::connect() {
    if (!is_enabled()) {
        log_printf("[DEBUG] arvok disabled\n");
        return;
    }
    reconnect_.cancel();
    const std::optional<std::string> address = next_address();
    if (!address)
        return;
    log_printf("[INFO] (arvok) connect \"%s:%s\" (%d)\n", address->c_str(), link_port, default_tried_);

    // Numeric, because resolving a name would stop the loop; a text that is no address leaves errno as it is.
    errno = EINVAL;
    const int fd = usock(USOCK_TCP | USOCK_NONBLOCK | USOCK_NUMERIC, address->c_str(), link_port);
    if (fd < 0) {
        log_printf("[ERROR] (arvok) create socket failed: %s\n", std::strerror(errno));
        reconnect_.arm(reconnect_ms);
        return;
    }
    notice_dead_peer(fd);
    stream_.open(fd);
    frames_.reset();
    sequence_ = 0;
    keepalive_sequence_ = -1;
    negotiating_ = false;
    listeners_.opened();
}

void connection::disconnect() {
    state_.linked = false;
    ack_.cancel();
    keepalive_ack_.cancel();
    keepalive_.cancel();
    if (stream_.is_open()) {
        log_printf("[INFO] (arvok) disconnect fd: %d\n", stream_.fd());
        stream_.close();
    }
    outbox_.clear();
    forget_key();
    listeners_.closed();
}

void connection::fail() {
    disconnect();
    reconnect_.arm(reconnect_ms);
}

void connection::start_over() {
    if (starting_over_)
        return;
    starting_over_ = tasks_.post([this] {
        starting_over_ = false;
        log_printf("[DEBUG] ec_arvoksync_on (%d)", __LINE__);
        disconnect();
        reconnect_.arm(reconnect_sync_ms);
    });
}

std::string connection::local_address() const {
    return arvok::local_address(stream_.fd());
}

// --- receiving ---

void connection::readable(std::size_t available) {
    if (!frames_.read(stream_, available))
        fail();
}

// What is not JSON ends the connection.
void connection::receive(std::string &body) {
    if (cipher_ && !cipher_->decrypt(body))
        return;
    body.resize(until_zero(body).size());
    const json::document document = json::parse(body);
    if (!is_keepalive_ack(document.root()))
        log_printf("[INFO] (arvok) <- %s (%d)\n", body.c_str(), static_cast<int>(body.size()));
    if (!document) {
        log_printf("[ERROR] (arvok) invalid msg (not json format)\n");
        return fail();
    }
    std::string().swap(body);  // its memory serves the answer
    listeners_.received(document.root());
}

void connection::broken() {
    log_printf("[ERROR] (arvok) tcp connection broken\n");
    if (!was_refused())
        return fail();
    log_printf("[WARNING] (arvok) refused count >= 3, reconnect after 4 hours\n");
    disconnect();
    reconnect_.arm(reconnect_refused_ms);
}

// A gateway that time and again ends the connection soon after the negotiation began does not want this
// device.
bool connection::was_refused() {
    if (negotiating_since_s_ != 0) {
        if (uptime() - negotiating_since_s_ < short_connection_s) {
            short_connections_++;
            log_printf("[WARNING] (arvok) connect time < 30s, count %d\n", short_connections_);
        } else {
            short_connections_ = 0;
        }
        negotiating_since_s_ = 0;
    }
    if (short_connections_ < short_connections_max)
        return false;
    short_connections_ = 0;
    return true;
}

void connection::negotiation_began() {
    negotiating_since_s_ = uptime();
    negotiating_ = true;
}

// --- sending ---

message connection::new_message(std::string_view type, int ack_timeout_ms) {
    message begun{.ack_timeout_ms = ack_timeout_ms};
    begun.body.text("type", type).number("sequence", sequence_++).text("mac", cache_.own_mac());
    return begun;
}

// The text becomes its frame.
bool connection::transmit(json::value body, bool quiet) {
    std::string text = body.take();
    if (text.empty()) {
        log_printf("[ERROR] (arvok) own msg too long\n");
        return false;
    }
    if (!quiet)
        log_printf("[INFO] (arvok) -> %s (%d)\n", text.c_str(), static_cast<int>(text.size()));
    if (!make_frame(text, cipher_ ? &*cipher_ : nullptr))
        return false;
    stream_.write(text);
    memory_.sent(text.size());
    return true;
}

void connection::send(message what) {
    if (!stream_.is_open())
        return;
    // Also when it cannot be written: the negotiation goes on with its acknowledgement only.
    if (what.ack_timeout_ms > 0)
        ack_.arm(what.ack_timeout_ms);
    transmit(what.body.take(), what.quiet);
}

void connection::send(json::value body) {
    if (stream_.is_open())
        transmit(std::move(body), false);
}

void connection::ack_missing() {
    log_printf("[ERROR] (arvok) wait ack timeout\n");
    fail();
}

// --- keepalives ---

void connection::keep_alive() {
    negotiating_ = false;
    keepalive_.arm(first_keepalive_ms);
}

void connection::send_keepalive() {
    keepalive_sequence_ = sequence_;
    message keepalive = new_message("keepalive");
    keepalive.quiet = true;
    keepalive_ack_.arm(keepalive_ack_ms);
    send(std::move(keepalive));
}

bool connection::is_keepalive_ack(json::view message) const {
    return message["sequence"].integer() == keepalive_sequence_;
}

void connection::keepalive_acknowledged() {
    keepalive_ack_.cancel();
    keepalive_.arm(keepalive_ms);
}

void connection::keepalive_ack_missing() {
    log_printf("[ERROR] (arvok) wait keepalive ack timeout\n");
    fail();
}

}  // namespace arvok::gateway
