// A bus of one's own: a real daemon on a private socket, clients in this process and in others, and commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace arvok {

/// Runs the loop until `done` holds; false when it does not within ten seconds.
bool pump_until(const std::function<bool()> &done);

std::string json_of(blob_attr *message);

/// A message with the content of a JSON object.
struct Json {
    blob_buf buf{};

    explicit Json(const std::string &text = "{}");
    ~Json() { blob_buf_free(&buf); }
    Json(const Json &) = delete;
    blob_attr *head() { return buf.head; }
};

struct Answer {
    bool complete = false;
    int status = -1;
    std::vector<std::string> data;
};

/// A libubus client on the loop of the test.
class Peer {
  public:
    explicit Peer(const std::string &socket);

    ubus_context *get() const { return bus_.get(); }
    uint32_t id_of(const char *path) const;

    /// Starts a call and lets the loop finish it. The answer fills up as it comes.
    std::shared_ptr<Answer> start(uint32_t object, const char *method, const std::string &json = "{}") const;

    /// The same, finished.
    Answer call(const char *path, const char *method, const std::string &json = "{}") const;

  private:
    struct Free {
        void operator()(ubus_context *bus) const { ubus_free(bus); }
    };
    std::unique_ptr<ubus_context, Free> bus_;
};

/// An object whose methods are functions of the test.
class Service {
  public:
    using Method =
        std::function<int(ubus_request_data *request, const std::string &json, blob_attr *message)>;

    Service(const Peer &peer, const char *path);
    ~Service();
    Service(const Service &) = delete;

    /// The methods it has: echo, numbers and, settable, custom.
    Method custom;
    std::function<void(bool)> on_subscribers;
    ubus_object *object() { return &object_; }

  private:
    struct Object : ubus_object {
        Service *service;
    } object_{};
    ubus_object_type type_{};
    const Peer &peer_;
};

/// A program under way: its output and its end are gathered by the loop.
class Program {
  public:
    explicit Program(const std::vector<std::string> &arguments);
    ~Program();
    Program(const Program &) = delete;

    /// Lets it end; its exit status, or minus the number of the signal that ended it.
    int finish();
    void signal(int number) const;

    const std::string &output() const { return output_[0].text; }
    const std::string &errors() const { return output_[1].text; }

  private:
    struct Reader : uloop_fd {
        std::string text;
    };
    static void read(uloop_fd *fd, unsigned int events);

    struct Process : uloop_process {
        int status;
    } process_{};
    Reader output_[2]{};
};

/// A client in another process, which runs `body` on its own connection to the bus. Start it before
/// connecting in this process. It is killed at the end.
class OtherProcess {
  public:
    OtherProcess(const std::string &socket, const std::function<void(const Peer &)> &body);
    ~OtherProcess();
    OtherProcess(const OtherProcess &) = delete;

  private:
    pid_t pid_;
};

class Bus : public testing::Test {
  protected:
    Bus();
    ~Bus() override;

    void start_daemon();
    /// Stops it with SIGTERM and gives its exit status.
    int stop_daemon();

    /// Runs the `ubus` command to its end.
    struct Result {
        int status;
        std::string output;
        std::string errors;
    };
    Result ubus(std::vector<std::string> arguments) const;
    /// Starts it.
    std::unique_ptr<Program> start_ubus(std::vector<std::string> arguments) const;

    std::string directory;
    std::string socket;
    std::unique_ptr<Program> daemon;
};

}  // namespace arvok
