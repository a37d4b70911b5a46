#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "programs.h"

extern "C" {
#include <libubox/usock.h>
}

namespace arvok {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto PATIENCE = std::chrono::seconds(10);

}  // namespace

bool pump_until(const std::function<bool()> &done) {
    const auto deadline = Clock::now() + PATIENCE;

    // Not with a limit for the run: older releases take it for the limit of a wait, and go on.
    uloop_timeout turn{};
    turn.cb = [](uloop_timeout *) { uloop_end(); };
    while (!done() && Clock::now() < deadline) {
        uloop_timeout_set(&turn, 1);
        uloop_run_timeout(-1);
    }
    uloop_timeout_cancel(&turn);
    return done();
}

std::string json_of(blob_attr *message) {
    const std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(message, true), free);
    return text ? text.get() : "(malformed)";
}

Json::Json(const std::string &text) {
    blob_buf_init(&buf, 0);
    EXPECT_TRUE(blobmsg_add_json_from_string(&buf, text.c_str())) << text;
}

// Peer

Peer::Peer(const std::string &socket) : bus_(ubus_connect(socket.c_str())) {
    EXPECT_NE(bus_, nullptr);
    if (bus_)
        ubus_add_uloop(bus_.get());
}

uint32_t Peer::id_of(const char *path) const {
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(get(), path, &id), UBUS_STATUS_OK) << path;
    return id;
}

std::shared_ptr<Answer> Peer::start(uint32_t object, const char *method, const std::string &json) const {
    struct Call : ubus_request {
        std::shared_ptr<Answer> answer;
    };
    Json message(json);
    auto *call = new Call{};
    const auto answer = std::make_shared<Answer>();

    call->answer = answer;
    answer->status = ubus_invoke_async(get(), object, method, message.head(), call);
    if (answer->status != UBUS_STATUS_OK) {
        answer->complete = true;
        delete call;
        return answer;
    }
    call->data_cb = [](ubus_request *request, int, blob_attr *data) {
        static_cast<Call *>(request)->answer->data.push_back(json_of(data));
    };
    call->complete_cb = [](ubus_request *request, int status) {
        auto *ended = static_cast<Call *>(request);
        ended->answer->status = status;
        ended->answer->complete = true;
        delete ended;
    };
    ubus_complete_request_async(get(), call);
    return answer;
}

Answer Peer::call(const char *path, const char *method, const std::string &json) const {
    const auto answer = start(id_of(path), method, json);
    EXPECT_TRUE(pump_until([&] { return answer->complete; })) << path << " " << method;
    return *answer;
}

// Service

Service::Service(const Peer &peer, const char *path) : peer_(peer) {
    static const blobmsg_policy arguments[] = {
        {.name = "text", .type = BLOBMSG_TYPE_STRING}, {.name = "number", .type = BLOBMSG_TYPE_INT32},
        {.name = "flag", .type = BLOBMSG_TYPE_BOOL},   {.name = "list", .type = BLOBMSG_TYPE_ARRAY},
        {.name = "table", .type = BLOBMSG_TYPE_TABLE},
    };
    static const auto echo = [](ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                                blob_attr *message) -> int { return ubus_send_reply(bus, request, message); };
    static const auto numbers = [](ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                                   blob_attr *) -> int {
        for (int i = 1; i <= 3; i++) {
            Json message("{\"i\":" + std::to_string(i) + "}");
            ubus_send_reply(bus, request, message.head());
        }
        return UBUS_STATUS_OK;
    };
    static const auto custom_method = [](ubus_context *, ubus_object *object, ubus_request_data *request,
                                         const char *, blob_attr *message) -> int {
        return static_cast<Object *>(object)->service->custom(request, json_of(message), message);
    };
    // The library's own macros for these are not C++ in every release.
    static const auto methods = [] {
        std::array<ubus_method, 3> rows{};
        rows[0].name = "echo";
        rows[0].handler = echo;
        rows[0].policy = arguments;
        rows[0].n_policy = std::size(arguments);
        rows[1].name = "numbers";
        rows[1].handler = numbers;
        rows[2].name = "custom";
        rows[2].handler = custom_method;
        return rows;
    }();

    object_.service = this;
    object_.name = path;
    object_.type = &type_;
    type_.name = "service";
    type_.methods = object_.methods = methods.data();
    type_.n_methods = object_.n_methods = static_cast<int>(methods.size());
    object_.subscribe_cb = [](ubus_context *, ubus_object *object) {
        Service *service = static_cast<Object *>(object)->service;
        if (service->on_subscribers)
            service->on_subscribers(object->has_subscribers);
    };
    EXPECT_EQ(ubus_add_object(peer.get(), &object_), UBUS_STATUS_OK) << path;
}

Service::~Service() {
    if (peer_.get())
        ubus_remove_object(peer_.get(), &object_);
}

// Program

Program::Program(const std::vector<std::string> &arguments) {
    int pipes[2][2];
    std::vector<char *> argv;

    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    for (auto &ends : pipes)
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    process_.status = -1;
    process_.cb = [](uloop_process *process, int status) {
        static_cast<Process *>(process)->status = status;
    };
    const pid_t parent = getpid();
    process_.pid = fork();
    if (process_.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // It may have died before that.
        if (getppid() != parent)
            _exit(127);
        dup2(pipes[0][1], STDOUT_FILENO);
        dup2(pipes[1][1], STDERR_FILENO);
        // The loop of the test ignores it, and an ignored signal would be inherited.
        std::signal(SIGPIPE, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    uloop_process_add(&process_);
    for (size_t i = 0; i < std::size(pipes); i++) {
        ::close(pipes[i][1]);
        output_[i].fd = pipes[i][0];
        output_[i].cb = read;
        uloop_fd_add(&output_[i], ULOOP_READ);
    }
}

Program::~Program() {
    for (Reader &reader : output_) {
        uloop_fd_delete(&reader);
        if (reader.fd >= 0)
            ::close(reader.fd);
    }
    if (uloop_process_delete(&process_) == 0) {
        ::kill(process_.pid, SIGKILL);
        waitpid(process_.pid, nullptr, 0);
    }
}

void Program::read(uloop_fd *fd, unsigned int) {
    auto *reader = static_cast<Reader *>(fd);
    char chunk[4096];
    ssize_t n;

    while ((n = ::read(fd->fd, chunk, sizeof(chunk))) > 0)
        reader->text.append(chunk, static_cast<size_t>(n));
    if (n == 0) {
        uloop_fd_delete(fd);
        ::close(fd->fd);
        fd->fd = -1;
    }
}

int Program::finish() {
    EXPECT_TRUE(pump_until([this] { return !process_.pending && output_[0].fd < 0 && output_[1].fd < 0; }));
    return WIFEXITED(process_.status) ? WEXITSTATUS(process_.status) : -WTERMSIG(process_.status);
}

void Program::signal(int number) const {
    ::kill(process_.pid, number);
}

// OtherProcess

OtherProcess::OtherProcess(const std::string &socket, const std::function<void(const Peer &)> &body)
    : pid_(fork()) {
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    uloop_done();
    uloop_init();
    body(Peer(socket));
    _exit(0);
}

OtherProcess::~OtherProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

// Bus

Bus::Bus() {
    char name[] = "/tmp/bus-test-XXXXXX";

    EXPECT_NE(mkdtemp(name), nullptr);
    directory = name;
    socket = directory + "/ubus.sock";
    EXPECT_EQ(uloop_init(), 0);
    start_daemon();
}

Bus::~Bus() {
    if (daemon) {
        EXPECT_EQ(stop_daemon(), 0);
    }
    uloop_done();
    std::filesystem::remove_all(directory);
}

void Bus::start_daemon() {
    daemon = std::make_unique<Program>(std::vector<std::string>{bus_program("ubusd"), "-s", socket});
    EXPECT_TRUE(pump_until([this] {
        // It greets from its loop, which has taken the signals by then.
        pollfd probe{.fd = usock(USOCK_UNIX, socket.c_str(), nullptr), .events = POLLIN, .revents = 0};
        const bool greeted = probe.fd >= 0 && poll(&probe, 1, 10000) == 1;
        if (probe.fd >= 0)
            ::close(probe.fd);
        return greeted;
    }));
}

int Bus::stop_daemon() {
    daemon->signal(SIGTERM);
    const int status = daemon->finish();
    EXPECT_EQ(daemon->errors(), "");
    daemon.reset();
    return status;
}

std::unique_ptr<Program> Bus::start_ubus(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {BUS_PROGRAMS "/ubus", "-s", socket});
    return std::make_unique<Program>(arguments);
}

Bus::Result Bus::ubus(std::vector<std::string> arguments) const {
    const auto program = start_ubus(std::move(arguments));
    const int status = program->finish();
    return {status, program->output(), program->errors()};
}

}  // namespace arvok
