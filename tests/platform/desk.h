/// A bus daemon and an emulated platform of the test's own, with this process as the library's client.
#ifndef ARVOK_TESTS_PLATFORM_DESK_H
#define ARVOK_TESTS_PLATFORM_DESK_H

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libubus.h>
}

#include "qzcap.h"

namespace arvok::test {

struct FreeJson {
    void operator()(cJSON *value) const { cJSON_Delete(value); }
};
using json_ptr = std::unique_ptr<cJSON, FreeJson>;

struct FreeText {
    void operator()(char *text) const { qzcap_free(text); }
};
using text_ptr = std::unique_ptr<char, FreeText>;

json_ptr parse(const std::string &text);
std::string print(const cJSON *value);
/// The member at a path like "waninfo.ipaddr" or "wifiinfo.'2.4G'.channel"; null when absent.
cJSON *at(const cJSON *root, const std::string &path);
std::string text_at(const cJSON *root, const std::string &path);
double number_at(const cJSON *root, const std::string &path);

/// A child process, whose standard output and error go into a pipe; killed with its owner.
class Process {
  public:
    explicit Process(const std::vector<std::string> &command);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    /// Reads output until it contains `text`; false when the process ends before.
    bool wait_for(const std::string &text);
    /// Reads the rest of the output and returns the exit status, or minus the signal.
    int wait();
    void kill(int signal) const;
    const std::string &output() const { return output_; }

  private:
    bool read_some();

    pid_t pid_ = -1;
    int fd_ = -1;
    std::string output_;
};

/// What a subscriber of this process has heard: "METHOD {json}".
struct Listener : ubus_subscriber {
    std::vector<std::string> heard;
    Listener();
};

class Desk : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    void start_platform(const std::string &state_file);
    void stop_platform() { platform_.reset(); }
    void stop_bus();
    /// The path of a file among the device's own.
    std::string device_file(const std::string &name) const { return directory_ + "/qzcap/" + name; }
    std::string file(const std::string &name, const std::string &content) const;

    /// Calls a method on the bus; a bus failure makes `status` non-zero. Null without an answer.
    json_ptr call(const char *object, const char *method, const std::string &message, int *status = nullptr);
    /// A method of the emulator that must succeed.
    json_ptr emulator(const char *method, const std::string &message = "{}");
    json_ptr state() { return emulator("state"); }
    void patch(const std::string &patch) { emulator("patch", R"({"patch":)" + patch + "}"); }
    void fail_next(const std::string &function, const std::string &reason, const char *mode = "error");

    /// Runs the loop until the condition holds. False when it does not within ten seconds.
    static bool run_until(const std::function<bool()> &condition);

    const std::string &socket() const { return socket_; }
    const std::string &directory() const { return directory_; }

  private:
    std::string directory_;
    std::string socket_;
    std::unique_ptr<Process> bus_;
    std::unique_ptr<Process> platform_;
};

}  // namespace arvok::test

#endif
