#include "local_server/local_server.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/crypto.h"
#include "common/frame_reader.h"
#include "common/text.h"
#include "context.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok {
namespace {

constexpr char any_address[] = "0.0.0.0";
constexpr char default_port[] = "17998";
constexpr int exit_no_port = -1;
constexpr int accept_pause_ms = 1000;

// Descriptors that clients leave to the agent's own connections, files and commands.
constexpr rlim_t own_descriptors = 16;

// A client that does not take its replies is read again when it has taken them down to this.
constexpr int unsent_max = 16384;

// The one command, and what it tells beside the MAC.
constexpr char sn_command[] = "GET_SN_INFO";
constexpr char device_type[] = "1";
constexpr char protocol_version[] = "V2019.1.0";

// The stream is the first member, so one address serves for both.
static_assert(std::is_standard_layout_v<local_client> && offsetof(local_client, stream) == 0);

local_client &client_of(tcp_stream &stream) {
    return *reinterpret_cast<local_client *>(&stream);
}

// --- requests ---

// What is wrong with a Post1 command, or null. `command` receives what was sent, as far as it can be read.
const char *read_command(const cJSON *request, json_ptr &command) {
    const char *parameter = json_text(request, "Parameter");
    if (!parameter)
        return "invalid Parameter";
    text_ptr text;
    if (_do_b64_code(parameter, _strlen(parameter), text, false) < 0)
        return "Parameter base64 encode failed";  // that is its wording
    command = json_parse(text.get());
    if (_strcmp(json_text(command.get(), "CmdType"), sn_command) != 0)
        return "invalid CmdType";
    if (!json_text(command.get(), "SequenceId"))
        return "invalid seq";
    return nullptr;
}

void post1(local_client &client, const cJSON *request) {
    json_ptr command;
    const char *fault = read_command(request, command);
    json_object answer;
    answer.text("CmdType", sn_command);
    if (const char *sequence = json_text(command.get(), "SequenceId"))
        answer.text("SequenceId", sequence);
    answer.number("Status", fault ? 1 : 0);
    if (fault)
        answer.text("FailReason", fault);
    else
        answer.text("BussinessStatus", "")
            .text("MAC", own_mac())
            .text("LOID", "")
            .text("DevType", device_type)
            .text("Version", protocol_version);
    const text_ptr text = json_print(answer.get());
    text_ptr base64;
    _do_b64_code(text.get(), _strlen(text.get()), base64, true);
    ls_reply(client, request, 0, "return_Parameter", json_ptr(cJSON_CreateString(base64.get())));
}

void receive_body(tcp_stream &stream, char *body, int length) {
    qzcap_printf("[INFO] (local) <- %s (%d)\n", body, length);
    const json_ptr root = json_parse(body);
    if (!root) {
        qzcap_printf("[ERROR] (local) invalid msg (not json format)\n");
        return;
    }
    const char *method = json_text(root.get(), "RPCMethod");
    if (!method || !cJSON_IsNumber(json_member(root.get(), "ID"))) {
        qzcap_printf("[ERROR] (local) RPCMethod or ID not found\n");
        qzcap_printf("[ERROR] (local) invalid server msg\n");
        return;
    }
    if (_strcmp(method, "Post1") == 0)
        return post1(client_of(stream), root.get());
    ls_reply(client_of(stream), root.get(), -1, "FailReason",
             json_ptr(cJSON_CreateString("UNRECOGNIZE_REQUEST")));
}

// --- clients ---

int body_length(const void *header) {
    std::uint32_t length;
    std::memcpy(&length, header, sizeof length);
    length = ntohl(length);
    if (length < 1 || length > max_body) {
        qzcap_printf("[ERROR] (local) invalid msg header, %d\n", static_cast<int>(length));
        return 0;
    }
    return static_cast<int>(length);
}

constexpr frame_protocol protocol{
    .header_size = sizeof(std::uint32_t),
    .body_length = body_length,
    .receive = receive_body,
    .short_header = "[ERROR] (local) read header failed, %d\n",
    .waiting = "[INFO] (local) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (local) read msg failed, %d %d\n",
};

void read_cb(tcp_stream &stream, int avail) {
    local_client &client = client_of(stream);
    if (!read_frames(protocol, stream, avail, client.pending_len))
        ls_close_client(client);
}

void broken_cb(tcp_stream &stream) {
    ls_close_client(client_of(stream));
}

void down_cb(tcp_stream &stream) {
    ls->clients.erase(client_of(stream).place);
}

void add_client(int fd) {
    // A client that vanished without a word would keep its descriptor for ever.
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);

    ls->clients.push_front(std::make_unique<local_client>());
    local_client &client = *ls->clients.front();
    client.place = ls->clients.begin();
    stream_init(client.stream, read_cb, broken_cb);
    client.stream.on_down = down_cb;
    client.stream.unsent_max = unsent_max;
    stream_open(client.stream, fd);
}

// --- the listening socket ---

bool has_room() {
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) != 0 || ls->clients.size() + own_descriptors < limit.rlim_cur;
}

void accept_cb(uloop_fd *listener, unsigned int) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int fd =
        has_room() ? accept4(listener->fd, reinterpret_cast<sockaddr *>(&peer), &size, SOCK_CLOEXEC) : -1;
    if (fd < 0) {
        qzcap_printf("[ERROR] (local) accept failed\n");
        // Who could not be accepted keeps the socket readable: without a pause this would go on and on.
        uloop_fd_delete(listener);
        uloop_timeout_set(&ls->accept_pause, accept_pause_ms);
        return;
    }
    char address[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    qzcap_printf("[INFO] (local) accept client \"%s\" %d\n", address, fd);
    add_client(fd);
}

void accept_pause_cb(uloop_timeout *) {
    uloop_fd_add(&ls->listener, ULOOP_READ);
}

}  // namespace

void ls_init() {
    *ls = {};
    ls->listener.fd = -1;
    ls->listener.cb = accept_cb;
    ls->accept_pause.cb = accept_pause_cb;
}

void ls_run() {
    ls_server_start();
}

void ls_done() {
    ls_server_stop();
}

void ls_server_start() {
    const char *port = g_ctx.local_port_set ? g_ctx.local_port : default_port;
    qzcap_printf("[INFO] (local) server start \"%s:%s\"\n", any_address, port);
    ls->listener.fd = usock(USOCK_TCP | USOCK_SERVER | USOCK_NUMERIC, any_address, port);
    if (ls->listener.fd < 0) {
        qzcap_printf("[ERROR] (local) create socket failed: %s\n", std::strerror(errno));
        std::exit(exit_no_port);
    }
    uloop_fd_add(&ls->listener, ULOOP_READ);
}

void ls_server_stop() {
    if (ls->listener.fd >= 0) {
        qzcap_printf("[INFO] (local) server stop %d\n", ls->listener.fd);
        uloop_timeout_cancel(&ls->accept_pause);
        uloop_fd_delete(&ls->listener);
        close(ls->listener.fd);
        ls->listener.fd = -1;
    }
    // A client that is closed goes at once here, unless that was begun in a request of its own.
    for (auto at = ls->clients.begin(); at != ls->clients.end();)
        ls_close_client(**at++);
    ls->clients.clear();
}

void ls_close_client(local_client &client) {
    if (client.stream.fd <= 0)
        return;
    qzcap_printf("[INFO] (local) disconnect fd: %d\n", client.stream.fd);
    stream_close(client.stream);
}

void ls_reply(local_client &client, const cJSON *request, int result, const char *key, json_ptr item) {
    if (client.stream.fd <= 0)
        return;
    const cJSON *id = json_member(request, "ID");
    json_object reply;
    reply.text("Ack", json_text(request, "RPCMethod"))
        .number("ID", cJSON_IsNumber(id) ? id->valuedouble : 0)
        .number("Result", result);
    if (key && item)
        reply.add(key, std::move(item));
    const text_ptr text = json_print(reply.get());
    if (!text)
        return;
    const int len = _strlen(text.get());
    qzcap_printf("[INFO] (local) -> %s (%d)\n", text.get(), len);
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(len));
    std::vector<char> frame(sizeof length + static_cast<std::size_t>(len));
    std::memcpy(frame.data(), &length, sizeof length);
    std::memcpy(frame.data() + sizeof length, text.get(), static_cast<std::size_t>(len));
    stream_write(client.stream, frame.data(), static_cast<int>(frame.size()));
}

}  // namespace arvok
