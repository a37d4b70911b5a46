// Installing apps: what the library's caller is told, and what the device keeps.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "desk.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char info[] = "apps/qzcap/apps/opkg/info/";

/// What an installation reported to its caller.
struct Outcome {
    int called = 0;
    std::string message;
};

void installed(ubus_request *req, blob_attr *msg) {
    auto *outcome = static_cast<Outcome *>(req->priv);
    ++outcome->called;
    char *text = nullptr;
    ubus_request carrier{};
    carrier.priv = &text;
    qzcap_data_cb(&carrier, 0, msg);
    outcome->message = text != nullptr ? text_ptr(text).get() : "(none)";
    uloop_end();
}

std::string content(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// A web server that takes one request and answers it when it is told to.
class Server {
  public:
    Server() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/file";
    }
    ~Server() {
        close(client_);
        close(listener_);
    }

    /// Waits until somebody asks.
    bool asked() {
        client_ = accept(listener_, nullptr, nullptr);
        char request[4096];
        return recv(client_, request, sizeof(request), 0) > 0;
    }
    void answer(const std::string &response) {
        send(client_, response.data(), response.size(), MSG_NOSIGNAL);
        shutdown(client_, SHUT_WR);
    }
    /// Whether the client is gone; waits for it, but not until it is tired of waiting.
    bool left() {
        const timeval patience{10, 0};
        char byte = 0;
        setsockopt(client_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        errno = 0;
        return recv(client_, &byte, 1, 0) <= 0 && errno != EAGAIN;
    }

    std::string url;

  private:
    int listener_;
    int client_ = -1;
};

class Installing : public Desk {
  protected:
    static int start(const std::string &url, Outcome *outcome) {
        return qzcap_install_app(qzcap_get_ubus_context(), url.c_str(), installed, outcome);
    }

    static std::string outcome_of(Outcome &outcome) {
        EXPECT_TRUE(run_until([&] { return outcome.called > 0; }));
        EXPECT_EQ(outcome.called, 1);
        return outcome.message;
    }

    static std::string install(const std::string &url) {
        Outcome outcome;
        EXPECT_EQ(start(url, &outcome), 0) << url;
        return outcome_of(outcome);
    }

    /// Runs shell commands in a fresh folder; the URL of what they leave there as "package". `mkapp` builds
    /// one, `pack` makes a package of a control file (standard input) and the folder "data".
    std::string package(const std::string &commands) {
        const std::string folder = directory() + "/build" + std::to_string(++built_);
        const std::string script = "set -e; mkdir '" + folder + "'; cd '" + folder + R"('; mkdir data
            exec >commands.log 2>&1
            mkapp() { ')" MKAPP R"(' "$@" -o .; mv *.ipk package; }
            pack() {
                cat >control; echo 2.0 >debian-binary
                tar -czf control.tar.gz ./control
                [ -e data.tar.gz ] || tar -C data -czf data.tar.gz .
                tar -czf package debian-binary control.tar.gz data.tar.gz
            }
            )" + commands;
        EXPECT_EQ(std::system(script.c_str()), 0) << commands;
        return "file://" + folder + "/package";
    }

    std::string control(const std::string &name) const {
        return content(device_file(info + name + ".control"));
    }

    /// The names in a folder of the device.
    std::vector<std::string> listing(const std::string &folder) const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(device_file(folder))) {
            names.push_back(entry.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }

  private:
    int built_ = 0;
};

TEST_F(Installing, GivesTheDeviceAnAppWithItsFilesAndAnUpdateReplacesThem) {
    EXPECT_EQ(install(package("mkapp radio 2.0 --need-vendor --arch all")),
              R"({"result":0,"name":"radio","version":"2.0"})");
    EXPECT_THAT(control("radio"), StartsWith("Package: radio\nVersion: 2.0\n"));
    EXPECT_THAT(content(device_file("apps/radio/bin/radio")), HasSubstr("radio 2.0"));
    EXPECT_EQ(print(at(state().get(), "app.radio")),
              R"({"version":"2.0","state":"stopped","NeedGWVendor":"1"})");

    patch(R"({"app":{"radio":{"answer":{"on":"air"},"state":"running"}}})");
    std::ofstream(device_file("apps/radio/stations")) << "its own";
    EXPECT_EQ(install(package("mkdir data/etc; echo 3 >data/etc/radio; mkapp radio 2.1 --data data")),
              R"({"result":0,"name":"radio","version":"2.1"})");
    EXPECT_THAT(control("radio"), HasSubstr("Version: 2.1\n"));
    EXPECT_EQ(print(at(state().get(), "app.radio")),
              R"({"version":"2.1","state":"stopped","NeedGWVendor":"0","answer":{"on":"air"}})");
    EXPECT_THAT(listing("apps/radio"), ElementsAre("etc", "stations"));

    EXPECT_EQ(qzcap_run_app(nullptr, "radio", nullptr), 0);
    std::ofstream(device_file("apps/radio/etc/radio")) << "spoilt";
    EXPECT_EQ(qzcap_restore_app(nullptr, "radio", nullptr), 0);
    EXPECT_THAT(listing("apps/radio"), ElementsAre("etc"));
    EXPECT_EQ(content(device_file("apps/radio/etc/radio")), "3\n");
    EXPECT_EQ(text_at(state().get(), "app.radio.state"), "stopped");

    EXPECT_EQ(qzcap_uninstall_app(nullptr, "radio", nullptr), 0);
    EXPECT_EQ(control("radio"), "");
    EXPECT_THAT(listing("apps"), ElementsAre("qzcap"));
    EXPECT_THAT(listing("apps/qzcap/apps/opkg/packages"), ElementsAre());
}

/// What cannot be installed, and what the caller is told.
TEST_F(Installing, RefusesWhatIsNoAppOfThisDevice) {
    const std::string good = "Package: p\\nVersion: 1\\n";
    const auto packed = [&](const std::string &control, const std::string &data = "") {
        return package(data + "\nprintf '" + control + "' | pack");
    };
    struct Case {
        std::string url;
        int result;
        const char *reason;
    };
    const std::string long_name(32, 'n');
    const Case cases[] = {
        {"file:///nowhere/package", 1, "download failed: curl: (37) "},
        {"http://127.0.0.1:1/", 1, "download failed: curl: (7) Failed to connect"},
        {"http://", 1, "download failed: curl: (3)"},
        {"file:///dev/zero", 1, "download failed: larger than 33554432 bytes"},
        {package("echo no package >package"), 2, "not a package: gzip: package.tar.gz: not in gzip format"},
        {package("echo no package | gzip >package"), 2, "not a package: tar: This does not look"},
        {package("echo 2.0 >debian-binary; tar -czf package debian-binary"), 2,
         "not a package: no control.tar.gz in it"},
        {package("mkapp p 1; gzip -d <package >p.tar; truncate -s 1100 p.tar; gzip <p.tar >package"), 2,
         "not a package: tar: Unexpected EOF"},
        {package("truncate -s 100M big; tar -czf package big"), 2,
         "not a package: larger than 67108864 bytes"},
        {packed("Package: p\\n"), 3, "the control file lacks Version"},
        {packed("Version: 1\\n"), 3, "the control file lacks Package"},
        {packed("Package p\\nVersion: 1\\n"), 3, "the control file lacks Package"},
        {packed("Package: p\\nVersion: 1 or 2\\n"), 3, "the control file's Version is not one word"},
        {package("printf 'Package: p\\nVersion: 1\\n' >real; ln -s \"$PWD/real\" control; echo 2.0 "
                 ">debian-binary; tar -czf control.tar.gz control\n"
                 "tar -C data -czf data.tar.gz .; tar -czf package *.gz debian-binary"),
         3, "the control file lacks Package"},
        {packed("Package: " + long_name + "\\nVersion: 1\\n"), 4, "not a name for an app: nnn"},
        {packed("Package: ../p\\nVersion: 1\\n"), 4, "not a name for an app: ../p"},
        {packed("Package: a..b\\nVersion: 1\\n"), 4, "not a name for an app: a..b"},
        {packed("Package: .\\nVersion: 1\\n"), 4, "not a name for an app: ."},
        {packed("Package: qzcap\\nVersion: 1\\n"), 4, "not a name for an app: qzcap"},
        {packed(good + "Architecture: mips\\n"), 5, "wrong architecture: mips"},
        {packed(good, "echo x >data/x; tar -C data -cPzf data.tar.gz --transform 's,^,../../../,' x"), 2,
         "not a package: data: tar: "},
        {packed(good, "ln -s /etc data/etc"), 2, "not a package: data: etc leads out of the app's folder"},
        {packed(good, "mkdir data/d; ln -s ../../b data/d/a"), 2,
         "not a package: data: d/a leads out of the app's folder"},
        {packed(good, "mkfifo data/pipe"), 2, "not a package: data: pipe is neither file, folder nor link"},
        {packed(good, "for i in 1 2; do truncate -s 60M data/$i; done; tar -C data -cSzf data.tar.gz ."), 2,
         "not a package: data: larger than 67108864 bytes"},
    };
    const std::string before = print(state().get());
    for (const Case &item : cases) {
        const json_ptr outcome = parse(install(item.url));
        EXPECT_EQ(number_at(outcome.get(), "result"), item.result) << item.url;
        EXPECT_THAT(text_at(outcome.get(), "failreason"), StartsWith(item.reason)) << item.url;
    }
    EXPECT_EQ(print(state().get()), before);
    EXPECT_THAT(listing("apps"), ElementsAre("qzcap")) << "nothing is left behind";

    for (const std::string url : {"", "ftp://127.0.0.1/x", "/etc/passwd", "-K/etc/passwd", "http:/x"}) {
        Outcome outcome;
        EXPECT_LT(start(url, &outcome), 0) << url;
    }
    Outcome outcome;
    EXPECT_LT(start("http://" + std::string(1100, 'x'), &outcome), 0);
    EXPECT_LT(qzcap_install_app(qzcap_get_ubus_context(), nullptr, installed, &outcome), 0);
    EXPECT_LT(qzcap_install_app(qzcap_get_ubus_context(), "file:///x", nullptr, &outcome), 0);
}

TEST_F(Installing, TakesFromWebServersWhatTheyAreAskedFor) {
    const std::string file_url = package("mkapp radio 2.0");
    const std::string bytes = content(file_url.substr(7));
    const std::string length = "Content-Length: " + std::to_string(bytes.size()) + "\r\n\r\n";
    struct Case {
        std::string response;
        const char *outcome;
    };
    const Case cases[] = {
        {"HTTP/1.1 200 OK\r\n" + length + bytes, R"({"result":0,"name":"radio","version":"2.0"})"},
        {"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", "The requested URL returned error: 404"},
        {"HTTP/1.1 200 OK\r\n" + length + bytes.substr(1), "download failed: curl: (18)"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", "download failed: curl: (63)"},
        {"HTTP/1.1 302 Found\r\nLocation: " + file_url + "\r\nContent-Length: 0\r\n\r\n",
         "download failed: curl: (1)"},
        {"", "download failed: curl: (52)"},
    };
    for (const Case &item : cases) {
        Server server;
        Outcome outcome;
        ASSERT_EQ(start(server.url, &outcome), 0);
        ASSERT_TRUE(server.asked());
        server.answer(item.response);
        EXPECT_THAT(outcome_of(outcome), HasSubstr(item.outcome));
    }
}

TEST_F(Installing, KeepsNobodyWaiting) {
    const std::string url = package("mkapp radio 2.0");
    const std::string bytes = content(url.substr(7));
    Server server;
    Outcome slow;
    ASSERT_EQ(start(server.url, &slow), 0);
    ASSERT_TRUE(server.asked());
    Server servers[7];
    Outcome others[7];
    for (int i = 0; i < 7; i++) {
        EXPECT_EQ(start(servers[i].url, &others[i]), 0);
    }
    Outcome ninth;
    EXPECT_LT(start(url, &ninth), 0) << "eight at a time";
    for (int i = 0; i < 7; i++) {
        ASSERT_TRUE(servers[i].asked());
        servers[i].answer("HTTP/1.1 200 OK\r\n\r\n" + bytes);
        EXPECT_EQ(outcome_of(others[i]), R"({"result":0,"name":"radio","version":"2.0"})");
    }
    EXPECT_EQ(qzcap_uninstall_app(nullptr, "radio", nullptr), 0);
    EXPECT_EQ(control("radio"), "");
    EXPECT_EQ(slow.called, 0);
    server.answer("HTTP/1.1 200 OK\r\n\r\n" + bytes);
    EXPECT_EQ(outcome_of(slow), R"({"result":0,"name":"radio","version":"2.0"})");
    EXPECT_EQ(text_at(state().get(), "app.radio.version"), "2.0");
    EXPECT_EQ(ninth.called, 0);
}

TEST_F(Installing, EndsOnceForItsCallerWhoeverDies) {
    Outcome without;
    for (const bool killed : {false, true}) {
        Server server;
        Outcome outcome;
        ASSERT_EQ(start(server.url, &outcome), 0);
        ASSERT_TRUE(server.asked());
        killed ? kill_platform() : stop_platform();
        EXPECT_TRUE(server.left()) << "the download ends with the daemon";
        EXPECT_EQ(outcome_of(outcome), "(none)");
        EXPECT_LT(start("file:///x", &without), 0);
        EXPECT_EQ(listing("apps").size(), killed ? 2U : 1U);
        start_platform(HOME_STATE);
        EXPECT_THAT(listing("apps"), ElementsAre("qzcap"));
    }
    const std::string url = package("mkapp radio 2.0");
    EXPECT_EQ(install(url), R"({"result":0,"name":"radio","version":"2.0"})") << "with the next daemon";

    Server second;
    Outcome abandoned;
    ASSERT_EQ(start(second.url, &abandoned), 0);
    ASSERT_TRUE(second.asked());
    qzcap_ubus_done();
    EXPECT_EQ(abandoned.called, 1);
    EXPECT_EQ(abandoned.message, "(none)");
    EXPECT_LT(start(url, &without), 0);
    ASSERT_EQ(qzcap_ubus_start(0), 0);
    second.answer("HTTP/1.1 404 Gone\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(install(url), R"({"result":0,"name":"radio","version":"2.0"})") << "in the next session";

    ASSERT_EQ(start(url, &without), 0);
    stop_bus();
    uloop_run_timeout(-1);
    qzcap_ubus_done();
    EXPECT_EQ(without.called, 1);
    EXPECT_EQ(abandoned.called, 1);
    ASSERT_EQ(qzcap_ubus_start(0), -1);
}

TEST_F(Installing, FailsOnDemandAtOnceOrInTheEnd) {
    const std::string url = package("mkapp radio 2.0");
    Outcome outcome;
    for (const char *mode : {"error", "empty"}) {
        fail_next("qzcap_install_app", "disk full", mode);
        EXPECT_LT(start(url, &outcome), 0) << mode;
    }
    const auto fail_completion = [this](const char *mode) {
        emulator(
            "fail",
            std::string(R"({"call":"qzcap_install_app","completion":true,"reason":"disk full","mode":")") +
                mode + R"("})");
    };
    fail_completion("error");
    EXPECT_LT(start("gopher://x", &outcome), 0);
    EXPECT_EQ(install(url), R"({"result":-1,"failreason":"disk full"})");
    fail_completion("empty");
    EXPECT_EQ(install(url), "(none)");
    fail_completion("timeout");
    ASSERT_EQ(start(url, &outcome), 0);
    EXPECT_EQ(at(state().get(), "app.radio"), nullptr);
    EXPECT_EQ(install(url), R"({"result":0,"name":"radio","version":"2.0"})");
    EXPECT_EQ(outcome.called, 0);
    qzcap_ubus_done();
    EXPECT_EQ(outcome.message, "(none)") << "at the latest";
    qzcap_ubus_start(0);
}

TEST_F(Installing, ControlFilesFollowTheDocument) {
    EXPECT_THAT(listing(info), ElementsAre("arvokclt.control", "printshop.control", "weather.control"));
    EXPECT_EQ(control("printshop"),
              "Package: printshop\nVersion: 1.1.0\nArchitecture: all\nNeedGWVendor: 1\n");
    patch(
        R"({"app":{"weather":null,"printshop":{"version":"1.2","NeedGWVendor":"0"},"radio":{"version":"7"}}})");
    EXPECT_THAT(listing(info), ElementsAre("arvokclt.control", "printshop.control", "radio.control"));
    EXPECT_EQ(control("printshop"), "Package: printshop\nVersion: 1.2\nArchitecture: all\nNeedGWVendor: 0\n");
    std::filesystem::create_directory(device_file("apps/arvokclt"));
    EXPECT_EQ(qzcap_uninstall_app(nullptr, "arvokclt", nullptr), 0);
    EXPECT_EQ(control("arvokclt"), "");
    EXPECT_TRUE(std::filesystem::exists(device_file("apps/arvokclt"))) << "not from a package";
    EXPECT_EQ(qzcap_reset(), 0);
    EXPECT_THAT(listing(info), ElementsAre("arvokclt.control", "printshop.control", "weather.control"));
}

}  // namespace
}  // namespace arvok::test
