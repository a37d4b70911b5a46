// Installing apps: what the library's caller is told, and what the device keeps.
#include <algorithm>
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

TEST_F(Installing, EndsWithThePlatformThatItWasBegunOn) {
    Outcome old, later;
    emulator("fail", R"({"call":"qzcap_install_app","completion":true,"mode":"timeout"})");
    ASSERT_EQ(start(package("mkapp radio 2.0"), &old), 0);
    stop_platform();
    start_platform(HOME_STATE);
    // The news of the old one's end are still to be read.
    ASSERT_EQ(start(package("mkapp radio 2.0"), &later), 0);
    EXPECT_EQ(outcome_of(later), R"({"result":0,"name":"radio","version":"2.0"})");
    EXPECT_EQ(outcome_of(old), "(none)");
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
    const Case cases[] = {
        {"file:///nowhere/package", 1, "download failed: curl: (37) "},
        {"http://127.0.0.1:1/", 1, "download failed: curl: (7) Failed to connect"},
        {package("echo no package >package"), 2, "not a package: gzip: package.tar.gz: not in gzip format"},
        {packed("Package: p\\n"), 3, "the control file lacks Version"},
        {packed("Package: ../p\\nVersion: 1\\n"), 4, "not a name for an app: ../p"},
        {packed(good + "Architecture: mips\\n"), 5, "wrong architecture: mips"},
        {packed(good, "echo x >data/x; tar -C data -cPzf data.tar.gz --transform 's,^,../../../,' x"), 2,
         "not a package: data: tar: "},
        {packed(good, "ln -s /etc data/etc"), 2, "not a package: data: etc leads out of the app's folder"},
    };
    const std::string before = print(state().get());
    for (const Case &item : cases) {
        const json_ptr outcome = parse(install(item.url));
        EXPECT_EQ(number_at(outcome.get(), "result"), item.result) << item.url;
        EXPECT_THAT(text_at(outcome.get(), "failreason"), StartsWith(item.reason)) << item.url;
    }
    EXPECT_EQ(print(state().get()), before);
    EXPECT_THAT(listing("apps"), ElementsAre("qzcap")) << "nothing is left behind";
    Outcome outcome;
    EXPECT_LT(start("ftp://127.0.0.1/x", &outcome), 0);
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
