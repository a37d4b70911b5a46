#include "desk.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "../bus/programs.h"
#include "../loop.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
}

namespace arvok::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto patience = std::chrono::seconds(10);

/// Whether somebody accepts connections on the socket; the bus daemon says nothing when it is up.
bool accepts(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
}

int hear(ubus_context *, ubus_object *object, ubus_request_data *, const char *method, blob_attr *msg) {
    auto *listener = static_cast<Listener *>(container_of(object, ubus_subscriber, obj));
    const text_ptr text(blobmsg_format_json_with_cb(msg, true, nullptr, nullptr, -1));
    listener->heard.push_back(std::string(method) + " " + (text ? text.get() : "(none)"));
    uloop_end();
    return 0;
}

}  // namespace

json_ptr parse(const std::string &text) {
    return json_ptr(cJSON_Parse(text.c_str()));
}

std::string print(const cJSON *value) {
    const text_ptr text(cJSON_PrintUnformatted(value));
    return text ? text.get() : "(none)";
}

cJSON *at(const cJSON *root, const std::string &path) {
    // An element that holds the separator is put in single quotes.
    auto *value = const_cast<cJSON *>(root);
    for (std::size_t start = 0; value != nullptr && start < path.size();) {
        std::string name;
        if (path[start] == '\'') {
            const std::size_t end = path.find('\'', start + 1);
            name = path.substr(start + 1, end - start - 1);
            start = end + 2;
        } else {
            const std::size_t end = std::min(path.find('.', start), path.size());
            name = path.substr(start, end - start);
            start = end + 1;
        }
        value = cJSON_GetObjectItemCaseSensitive(value, name.c_str());
    }
    return value;
}

std::string text_at(const cJSON *root, const std::string &path) {
    const char *text = cJSON_GetStringValue(at(root, path));
    return text != nullptr ? text : "(none)";
}

double number_at(const cJSON *root, const std::string &path) {
    return cJSON_GetNumberValue(at(root, path));
}

Process::Process(const std::vector<std::string> &command) {
    std::vector<char *> argv;
    for (const std::string &word : command) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(ends[1]);
    fd_ = ends[0];
}

Process::~Process() {
    if (pid_ > 0) {
        kill(SIGTERM);
        const int status = wait();
        EXPECT_TRUE(status == 0 || status == -SIGTERM || status == -SIGKILL) << status << "\n" << output_;
    }
    close(fd_);
}

bool Process::read_some() {
    char buffer[4096];
    pollfd readable{fd_, POLLIN, 0};
    if (poll(&readable, 1, std::chrono::milliseconds(patience).count()) <= 0) {
        return false;
    }
    const ssize_t length = read(fd_, buffer, sizeof(buffer));
    output_.append(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
    return length > 0;
}

bool Process::wait_for(const std::string &text) {
    while (output_.find(text) == output_.npos) {
        if (!read_some()) {
            return false;
        }
    }
    return true;
}

int Process::wait() {
    while (read_some()) {
    }
    pollfd ended{fd_, POLLIN, 0};
    if (poll(&ended, 1, 0) == 0) {
        kill(SIGKILL);  // still has its output open: it does not end by itself
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void Process::kill(int signal) const {
    ::kill(pid_, signal);
}

Listener::Listener() : ubus_subscriber{} {
    cb = hear;
}

void Desk::SetUp() {
    std::string pattern = std::filesystem::temp_directory_path() / "platform.XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    socket_ = directory_ + "/ubus.sock";
    bus_ = std::make_unique<Process>(std::vector<std::string>{bus_program("ubusd"), "-s", socket_});
    const auto deadline = Clock::now() + patience;
    while (!accepts(socket_)) {
        ASSERT_LT(Clock::now(), deadline) << "the bus daemon does not come up";
        poll(nullptr, 0, 5);
    }
    start_platform(HOME_STATE);
    setenv("UBUS_SOCKET", socket_.c_str(), 1);
    ASSERT_EQ(qzcap_ubus_start(0), 0);
}

void Desk::TearDown() {
    qzcap_ubus_done();
    platform_.reset();
    bus_.reset();
    std::filesystem::remove_all(directory_);
}

void Desk::start_platform(const std::string &state_file) {
    platform_ = std::make_unique<Process>(
        std::vector<std::string>{QZCAPD, "--state", state_file, "-s", socket_, "--root", directory_});
    ASSERT_TRUE(platform_->wait_for("qzcapd: ready")) << platform_->output();
}

void Desk::stop_bus() {
    bus_.reset();
}

std::string Desk::file(const std::string &name, const std::string &content) const {
    const std::string path = directory_ + "/" + name;
    std::ofstream(path) << content;
    return path;
}

json_ptr Desk::call(const char *object, const char *method, const std::string &message, int *status) {
    struct Buffer {
        blob_buf buf{};
        Buffer() { blob_buf_init(&buf, 0); }
        ~Buffer() { blob_buf_free(&buf); }
    } buffer;
    EXPECT_TRUE(blobmsg_add_json_from_string(&buffer.buf, message.c_str())) << message;
    char *text = nullptr;
    const int result = ubus_invoke(qzcap_get_ubus_context(), qzcap_get_objid_by_name(object), method,
                                   buffer.buf.head, qzcap_data_cb, &text, 5000);
    const text_ptr owner(text);
    if (status != nullptr) {
        *status = result;
    } else {
        EXPECT_EQ(result, 0) << object << " " << method << " " << message << ": " << ubus_strerror(result)
                             << (text != nullptr ? text : "");
    }
    return text != nullptr ? parse(text) : nullptr;
}

json_ptr Desk::emulator(const char *method, const std::string &message) {
    return call("qzcapd.emulator", method, message);
}

void Desk::fail_next(const std::string &function, const std::string &reason, const char *mode) {
    emulator("fail",
             R"({"call":")" + function + R"(","reason":")" + reason + R"(","mode":")" + mode + R"("})");
}

bool Desk::run_until(const std::function<bool()> &condition) {
    const auto deadline = Clock::now() + patience;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        run_loop_for(100);
    }
    return true;
}

}  // namespace arvok::test
