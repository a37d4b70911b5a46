// The cloud connection, and what it does with the device's packages.

#include "base/base64.h"
#include "base/json.h"
#include "cloud/plugin_id.h"
#include "qzcapd/control_file.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

constexpr char vendor[] = "Tandoril Networks";

// The emulated platform reads the same files.
void check_control(const std::string &control, const std::string &file) {
    for (const char *name : {"Package", "Version", "NeedGWVendor", "Daemon", ""}) {
        const std::string value = qzcapd::control_field(control, name);
        require(value.find('\n') == std::string::npos, "takes two lines for one");
        require(!qzcapd::is_app_name(value) || value.find('/') == std::string::npos,
                "takes a path for a name");
        qzcapd::is_app_version(value);
    }
    require(qzcapd::read_control(file) == control, "reads a control file with something missing");
}

}  // namespace

std::string app_request(const char *method, std::string_view app, std::string_view version,
                        std::string_view parameter) {
    return json::object()
        .text("RPCMethod", method)
        .text("ID", "1")
        .text("Plugin_Name", app)
        .text("Version", version)
        .text("Parameter", base64_encode(parameter))
        .take()
        .take();
}

void cloud(Input input) {
    const std::string_view start = input.until('\n');
    const int wanted = byte_at(start, 0) >= '1' && byte_at(start, 0) <= '5' ? start[0] - '0' : 5;
    CloudPeer peer;
    store_servers(wanted, start.size() > 1);
    Stage stage({&peer});
    climb_to(wanted, stage, peer);
    stage.play(input);
}

void packages(Input input) {
    const std::string_view id = input.until('\f'), version = input.until('\f'), parameter = input.until('\f');
    const std::string control(input.rest());
    CloudPeer peer;
    store_servers(5, true);
    Stage stage({&peer});
    climb_to(5, stage, peer);
    std::string file = arvok::cloud::app_of_plugin(id, vendor).value_or("weather") + ".control";
    file.erase(0, file.rfind('/') + 1);
    put_file(file, control);
    for (const char *method : {"SetPluginParams", "Stop", "ListPlugin"})
        stage.say(peer, app_request(method, id, version, parameter));
    arvok::cloud::plugin_of_app(id, vendor);
    check_control(control, file_folder() + file);
    stage.play(Input(""));
}

}  // namespace arvok::fuzz
