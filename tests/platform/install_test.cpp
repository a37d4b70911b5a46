// Installing apps: what the library's caller is told, and what the device keeps.
#include <sys/stat.h>

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

    std::string install(const std::string &url) {
        Outcome outcome;
        EXPECT_EQ(start(url, &outcome), 0) << url;
        EXPECT_TRUE(run_until([&] { return outcome.called > 0; })) << url;
        return outcome.message;
    }

    /// The URL of what the shell commands leave as "package" in a fresh folder; mkapp is the package builder.
    std::string package(const std::string &commands) {
        const std::string folder = file("build" + std::to_string(++built_), "");
        const std::string script =
            "exec >/dev/null; rm -f '" + folder + "'; mkdir '" + folder + "'; cd '" + folder +
            "'; mkapp() { '" MKAPP "' \"$@\" -o . && mv *.ipk package; }; set -e\n" + commands;
        EXPECT_EQ(std::system(script.c_str()), 0) << commands;
        return "file://" + folder + "/package";
    }

    std::string control(const std::string &name) { return content(device_file(info + name + ".control")); }

  private:
    int built_ = 0;
};

TEST_F(Installing, GivesTheDeviceAnAppWithItsFiles) {
    EXPECT_EQ(install(package("mkapp radio 2.0 --need-vendor")),
              R"({"result":0,"name":"radio","version":"2.0"})");
    EXPECT_THAT(control("radio"), HasSubstr("Package: radio\nVersion: 2.0\n"));
    EXPECT_THAT(content(device_file("apps/radio/bin/radio")), HasSubstr("radio 2.0"));
    EXPECT_EQ(print(at(state().get(), "app.radio")),
              R"({"version":"2.0","state":"stopped","NeedGWVendor":"1"})");
}

}  // namespace
}  // namespace arvok::test
