#include "stage.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "../tests/loop.h"
#include "platform.h"

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

bool is_among(const std::vector<Peer *> &peers, side of) {
    return std::any_of(peers.begin(), peers.end(), [of](const Peer *peer) { return peer->of() == of; });
}

void fire(uloop_timeout *timer) {
    uloop_timeout_cancel(timer);
    timer->cb(timer);
}

// A decimal number at the beginning of a text, 0 for none, at most `max`.
long number_at(std::string_view text, long max) {
    return std::clamp(std::strtol(std::string(text).c_str(), nullptr, 10), 0L, max);
}

}  // namespace

std::string_view Input::until(char separator) {
    const std::size_t end = rest_.find(separator);
    const std::string_view part = rest_.substr(0, end);
    rest_.remove_prefix(std::min(part.size() + 1, rest_.size()));
    return part;
}

blob_ptr blob_of_json(std::string_view json) {
    bus_message message;
    return blob_ptr(message.add_json(std::string(json)) ? blob_memdup(message.get()) : nullptr);
}

blob_ptr blob_of_bytes(std::string_view bytes) {
    const std::size_t size = sizeof(blob_attr) + bytes.size();
    blob_ptr message(static_cast<blob_attr *>(std::malloc(size)));
    message->id_len = htonl(static_cast<std::uint32_t>(size));
    bytes.copy(reinterpret_cast<char *>(message.get() + 1), bytes.size());
    return message;
}

Stage::Stage(std::vector<Peer *> peers, arvok::options chosen)
    : descriptor_(free_descriptor()),
      peers_(std::move(peers)),
      agent_(signals_, std::move(chosen), {clock_of_machine, file_folder()}) {
    machine.link_forbidden = !is_among(peers_, side::gateway);
    machine.threads_held = !is_among(peers_, side::cloud);
    platform.lists_empty = true;
    require(agent_.begin(), "does not begin");
    fire(armed_timers().front().timer);
    platform.lists_empty = false;
    schedule_timer_ = machine.armed_last;
    turn();
}

Stage::~Stage() {
    platform.fate = {};
    while (!platform.installations.empty())
        finish_installation(nullptr);
    agent_.end();
    require(platform.subscribers.empty() && !platform.app, "leaves a subscription behind");
    require(armed_timers().empty(), "leaves a timer armed");
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
        if (act(line, input))
            turn();
        else
            for (; repeat >= 0; repeat--)
                message(line);
        repeat = 0;
        check();
    }
    const unsigned before = platform.replies;
    command(blob_of_json(R"({"CmdType":"GET_STATUS"})"));
    require(platform.replies == before + 1, "does not tell its status");
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
            if (const auto &armed = armed_timers(); !armed.empty())
                fire(armed[static_cast<std::size_t>(number_at(argument, 100)) % armed.size()].timer);
            return true;
        case '%':
            taking_ = !taking_;
            for (Peer *peer : peers_)
                peer->at_once = false;
            return true;
        case '-':
            if (!peers_.empty())
                shutdown(peers_.front()->descriptor(), SHUT_RDWR);
            return true;
        case '?':
            notified_ = true;
            notify_from(argument);
            return true;
        case '$':
            finish_installation(blob_of_json(argument).get());
            return true;
        case '@':
            for (Peer *peer : peers_)
                peer->at_once = false;
            raw(input.rest());
            return true;
        default:
            return false;
    }
}

// A cloud behind a WAN that is down is waited for without a timer.
void Stage::check() {
    const auto &armed = armed_timers();
    const bool waits = std::any_of(armed.begin(), armed.end(),
                                   [this](const armed_timer &one) { return one.timer != schedule_timer_; });
    for (const Peer *peer : peers_)
        require(waits || peer->may_be_waited_for() || (notified_ && peer->of() == side::cloud),
                "waits for ever");
}

void Stage::command(const blob_ptr &message) {
    ubus_request_data request{};
    platform.app->postmsg(qzcap_get_ubus_context(), nullptr, &request, "postmsg", message.get());
    turn();
}

void Stage::notify_from(std::string_view line) {
    Input words(line);
    const std::string_view which = words.until(' ');
    const std::string method(words.until(' '));
    const blob_ptr message = blob_of_json(words.rest());
    notify(static_cast<unsigned>(number_at(which, 1000)), method.c_str(), message.get());
    turn();
}

void Stage::send(const Peer &peer, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(peer.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;  // there is no connection, or the agent does not read
        bytes.remove_prefix(static_cast<std::size_t>(sent));
        turn();
    }
}

void Stage::raw(std::string_view bytes) {
    const std::size_t piece = byte_at(bytes, 0) ? byte_at(bytes, 0) : bytes.size();
    for (std::size_t at = 1; at < bytes.size(); at += piece)
        send(*peers_.front(), bytes.substr(at, piece));
}

void Stage::turn() {
    // Descriptors, then tasks that they have posted, then what was put off to the next turn; and what the
    // agent could not send before.
    for (int rounds = 3; rounds > 0; rounds = take_answers())
        for (int round = 0; round < rounds; round++)
            run_loop_once();
}

// False when there were none. The peer of the script may have stopped taking.
bool Stage::take_answers() {
    bool any = false;
    for (std::size_t i = taking_ ? 0 : 1; i < peers_.size(); i++)
        any |= peers_[i]->take_answers();
    return any;
}

// --- connections that are under way ---

void register_device(Stage &stage, GatewayPeer &gateway) {
    for (const char *line :
         {R"({"type":"keyngack","keymode":"dh"})", R"({"type":"dh","data":{"dh_key":"BQ=="}})",
          R"({"type":"cfg","sequence":1,"mac":"",)"
          R"("set":{"eventsub":["online","offline","vsie","rolechange"]}})"})
        stage.say(gateway, line);
}

void store_servers(int wanted, bool known) {
    known |= wanted >= 4;
    platform.servers = {"100.64.0.1:8088", known ? "a token" : "", known ? "device 1" : ""};
    if (wanted > 1)
        platform.servers.emplace_back("100.64.0.2:8088");
}

void climb_to(int wanted, Stage &stage, CloudPeer &cloud) {
    constexpr struct {
        int from;
        const char *line;
    } steps[] = {
        {3, R"({"Ack":"GetChallengeCode","Result":0,"ChallengeCode":"XtGq3KRlwxhWgQ6e46k6jumtceRTLBuz"})"},
        {5, R"({"Ack":"Connect","Result":0,"SKey":"0123456789abcdef"})"},
        {5, R"({"Ack":"Heartbeat","Result":0})"},
    };
    for (const auto &step : steps)
        if (wanted >= step.from)
            stage.say(cloud, step.line);
}

}  // namespace arvok::fuzz
