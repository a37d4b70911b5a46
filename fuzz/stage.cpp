#include "stage.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arvok/platform_events.h"
#include "common/text.h"
#include "context.h"
#include "extcc/rules.h"
#include "machine.h"
#include "platform.h"
#include "utask/utask.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok::fuzz {
namespace {

int free_descriptor() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

}  // namespace

void require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "the agent: %s\n", what);
    std::abort();
}

std::string_view Input::until_end() {
    const std::string_view all = rest_;
    rest_ = {};
    return all;
}

std::string_view Input::until(char separator) {
    const std::size_t end = rest_.find(separator);
    if (end == std::string_view::npos)
        return until_end();
    const std::string_view part = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return part;
}

long number_at(std::string_view text, long max) {
    return std::clamp(std::strtol(std::string(text).c_str(), nullptr, 10), 0L, max);
}

blob_ptr blob_of_json(std::string_view json) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    const bool valid = blobmsg_add_json_from_string(&buf, std::string(json).c_str());
    blob_ptr message(valid ? blob_memdup(buf.head) : nullptr);
    blob_buf_free(&buf);
    return message;
}

blob_ptr blob_of_bytes(std::string_view bytes) {
    const std::size_t size = sizeof(blob_attr) + bytes.size();
    blob_ptr message(static_cast<blob_attr *>(std::malloc(size)));
    message->id_len = htonl(static_cast<std::uint32_t>(size));
    bytes.copy(reinterpret_cast<char *>(message.get() + 1), bytes.size());
    return message;
}

Stage::Stage(std::string_view port) : descriptor_(free_descriptor()), port_(port) {
    rule_folder = file_folder().c_str();
    _strlcpy(g_ctx.version, "1.0.7", sizeof g_ctx.version);
    _strlcpy(g_ctx.arch, "ipq5018x", sizeof g_ctx.arch);
    update_dev_info();
    ec->sync_on = 1;
    g_ctx.wifi_switch_on = 1;
    uloop_init();
    utask_init();
    subscribe_platform_events();
    ec_init();
    cc_init();
    ls_init();
    extcc_init();
    ec->stream.unsent_max = cc->stream.unsent_max = unsent_max;
}

Stage::~Stage() {
    platform.fate = {};
    while (!platform.installations.empty())
        finish_installation(nullptr);
    cc_done();
    ec_done();
    ls_done();
    extcc_done();
    utask_done();
    unsubscribe_platform_events();
    require(platform.subscribers.empty(), "leaves a subscription behind");
    // What main leaves to the end of the process: connections closed in their own read callback.
    stream_release(ec->stream);
    stream_release(cc->stream);
    release_device_info();
    blob_buf_free(&g_ctx.blob_buf);
    g_ctx = {};
    platform_reset();
    machine_reset();
    require(free_descriptor() == descriptor_, "leaves a descriptor open");
}

void Stage::play(Input input) {
    long repeat = 0;
    while (!input.empty()) {
        const std::string_view line = input.until('\n');
        if (byte_at(line, 0) == '*') {
            repeat = number_at(line.substr(1), 20);
            continue;
        }
        if (!act(line, input))
            do {
                message(line);
                turn();
            } while (repeat-- > 0);
        repeat = 0;
        turn();
        check();
    }
}

bool Stage::act(std::string_view line, Input &input) {
    const std::string_view argument = line.substr(std::min<std::size_t>(1, line.size()));
    switch (byte_at(line, 0)) {
        case '~':
            platform.fate = argument;
            return true;
        case '+':
            advance(number_at(argument, 100000000));
            return true;
        case '!':
            fire(number_at(argument, 100));
            return true;
        case '%':
            taking_ = !taking_;
            at_once_ = false;
            return true;
        case '-':
            shutdown(newest_far_end(port_), SHUT_RDWR);
            return true;
        case '?':
            notified_ = true;
            notify_from(argument);
            return true;
        case '$':
            finish_installation(blob_of_json(argument).get());
            return true;
        case '@':
            at_once_ = false;
            raw(input.rest());
            return true;
        default:
            return false;
    }
}

void Stage::notify_from(std::string_view line) {
    Input words(reinterpret_cast<const std::uint8_t *>(line.data()), line.size());
    const std::string_view which = words.until(' ');
    const std::string method(words.until(' '));
    const blob_ptr message = blob_of_json(words.rest());
    notify(static_cast<unsigned>(number_at(which, 1000)), method.c_str(), message.get());
}

void Stage::fire(long which) {
    uloop_timeout *const timers[] = {
        &ec->reconnect_timer,      &ec->ack_timer,           &ec->keepalive_timer,
        &ec->keepalive_ack_timer,  &cc->reconnect_timer,     &cc->change_timer,
        &cc->heartbeat_timer,      &cc->ack_timer,           &g_ctx.extcc.lanhost_timer,
        &g_ctx.extcc.parent_timer, &g_ctx.extcc.guest_timer,
    };
    std::vector<uloop_timeout *> armed;
    std::copy_if(std::begin(timers), std::end(timers), std::back_inserter(armed),
                 [](const uloop_timeout *timer) { return timer->pending; });
    if (armed.empty())
        return;
    uloop_timeout *timer = armed[static_cast<std::size_t>(which) % armed.size()];
    uloop_timeout_cancel(timer);
    timer->cb(timer);
}

void Stage::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(newest_far_end(port_), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;  // there is none, or the agent does not read
        bytes.remove_prefix(static_cast<std::size_t>(sent));
        turn();
    }
}

void Stage::send_in_pieces(std::string_view bytes) {
    const std::size_t piece = byte_at(bytes, 0);
    bytes.remove_prefix(std::min<std::size_t>(1, bytes.size()));
    while (piece > 0 && bytes.size() > piece) {
        send(bytes.substr(0, piece));
        bytes.remove_prefix(piece);
    }
    send(bytes);
}

void Stage::turn() {
    do {
        // Descriptors, then tasks that they have posted, then what was put off to the next turn.
        for (int round = 0; round < 3; round++)
            uloop_run_timeout(0);
    } while (taking_ && take_answers());
}

// False when there were none.
bool Stage::take_answers() {
    const int fd = newest_far_end(port_);
    if (fd != taken_from_)
        inbox_.clear();
    taken_from_ = fd;
    const std::size_t before = inbox_.size();
    char buf[16384];
    for (ssize_t got; (got = recv(fd, buf, sizeof buf, 0)) > 0;)
        inbox_.append(buf, static_cast<std::size_t>(got));
    const bool any = inbox_.size() > before;
    inbox_.erase(0, received(inbox_));
    return any;
}

}  // namespace arvok::fuzz
