// The gateway link, and the platform's notifications, which go out on it and through the cloud.

#include <algorithm>
#include <iterator>

#include "platform.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

class Events : public Stage {
  public:
    using Stage::Stage;

  protected:
    void message(std::string_view line) override { notify_from(line); }
    void raw(std::string_view bytes) override {
        constexpr const char *methods[] = {"devicestatus", "newdevice", "update", ""};
        const blob_ptr message = blob_of_bytes(bytes.substr(std::min<std::size_t>(2, bytes.size())));
        notify(byte_at(bytes, 0), methods[byte_at(bytes, 1) % std::size(methods)], message.get());
    }
};

}  // namespace

void gateway(Input input) {
    GatewayPeer peer;
    Stage stage({&peer});
    if (input.until('\n') != "0")
        register_device(stage, peer);
    stage.play(input);
}

void events(Input input) {
    constexpr char subscription[] =
        R"({"type":"ubus_subscribe","sequence":1,"mac":"","object":"o","enable":1})";
    GatewayPeer gateway_peer;
    CloudPeer cloud_peer;
    store_servers(5, true);
    Events stage({&gateway_peer, &cloud_peer});
    register_device(stage, gateway_peer);
    climb_to(5, stage, cloud_peer);
    stage.say(gateway_peer, subscription);
    stage.say(cloud_peer, app_request("SetPluginParams", "ArvokAP", "1.0.7", subscription));
    stage.play(input);
}

}  // namespace arvok::fuzz
