// The cloud connection, and what it does with the device's packages.

#include <arpa/inet.h>

#include <cstring>

#include "cloud_client/frame.h"
#include "common/crypto.h"
#include "common/text.h"
#include "context.h"
#include "machine.h"
#include "qzcapd/control_file.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

constexpr std::size_t frame_end_size = 2;

std::string base64(std::string_view data) {
    text_ptr text;
    _do_b64_code(data.data(), static_cast<int>(data.size()), text, true);
    return text.get();
}

class Cloud : public Stage {
  public:
    explicit Cloud(int status, bool known = false) : Stage("8088") {
        cc->resolver.current = {"100.64.0.2", "8088", server_tried};
        cc->server_kind = server_current;
        cc->status = status;
        if (known || status == cc_connecting) {
            cc->activated = 1;
            cc->devid = _strdup("device 1");
            cc->devtoken = _strdup("a token");
        }
        cc_run();
        turn();
        if (status != cc_challenge)
            cc->challenge = _strdup("XtGq3KRlwxhWgQ6e46k6jumtceRTLBuz");
        if (status == cc_connected)
            cc->server_key = _strdup("0123456789abcdef");
        else if (!cc->client_key)
            cc->client_key = _strdup("fedcba9876543210");
        uloop_timeout_set(status == cc_connected ? &cc->heartbeat_timer : &cc->ack_timer, 30000);
    }

  protected:
    void message(std::string_view line) override {
        const char how = static_cast<char>(byte_at(line, 0));
        const std::string_view text = line.substr(how == '=' || how == '#');
        std::string body =
            how == '#' ? std::string(text) : base64(how == '=' ? text : encrypted(text)) + "\r\n";
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(body.size()));
        body.insert(0, reinterpret_cast<const char *>(&length), sizeof length);
        send("QZSGWMP2" + body);
    }
    void raw(std::string_view bytes) override { send_in_pieces(bytes); }
    // A WAN that is down is waited for without a timer.
    void check() override {
        const bool waits = cc->ack_timer.pending || cc->heartbeat_timer.pending;
        require(cc->reconnect_timer.pending || cc->change_timer.pending || (cc->stream.fd > 0 && waits) ||
                    notified_,
                "has given the cloud up");
        char server[16] = "", status[16] = "";
        get_cloud_status(server, sizeof server, status, sizeof status);
    }
    std::size_t received(std::string_view bytes) override {
        std::size_t done = 0;
        while (bytes.size() - done > cc_header_size) {
            std::uint32_t length;
            std::memcpy(&length, bytes.data() + done + cc_header_size - sizeof length, sizeof length);
            length = ntohl(length);
            require(bytes.substr(done, 8) == "QZSGWMP2", "sends a frame without its magic number");
            require(length > frame_end_size && length < 1U << 30, "sends a frame of no length");
            if (bytes.size() - done - cc_header_size < length)
                break;
            check_body(std::string(bytes.substr(done + cc_header_size, length)));
            done += cc_header_size + length;
        }
        return done;
    }

  private:
    static std::string encrypted(std::string_view text) {
        const text_ptr &key = cc->status == cc_connected ? cc->server_key : cc->client_key;
        if (cc->status == cc_challenge || !key)
            return std::string(text);
        text_ptr cipher;
        int size = 0;
        _do_aes_ecb_crypt(text.data(), static_cast<int>(text.size()), cipher, size,
                          reinterpret_cast<const unsigned char *>(key.get()), true);
        return {cipher.get(), static_cast<std::size_t>(size)};
    }
    // What only the platform can decrypt is taken as it is.
    void check_body(std::string body) const {
        require(body.substr(body.size() - frame_end_size) == "\r\n", "sends a body without its end");
        const bool own_key = cc->status == cc_connected && cc->server_key;
        if (!at_once_ || cc->stream.fd <= 0 || !own_key)
            return;
        int size = 0;
        const text_ptr text = cc_frame_body_text(*cc, body.data(), static_cast<int>(body.size()), size);
        require(json_parse(text.get()) != nullptr, "sends what is not JSON");
    }
};

class Packages : public Cloud {
  public:
    Packages() : Cloud(cc_connected) {}

    void request(const char *method, const std::string &id, const std::string &version,
                 std::string_view parameter) {
        const json_ptr root = json_object()
                                  .text("RPCMethod", method)
                                  .text("ID", "1")
                                  .text("Plugin_Name", id.c_str())
                                  .text("Version", version.c_str())
                                  .text("Parameter", base64(parameter).c_str())
                                  .take();
        cc_handle_msg(root.get());
        turn();
    }
};

void check_plugin_id(const char *app_name) {
    char id[plugin_id_size];
    gen_plugin_id(app_name, id);
    require(std::strlen(id) < sizeof id, "writes a plugin identifier that does not end");
}

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

void cloud(Input input) {
    const std::string_view start = input.until('\n');
    const int status = byte_at(start, 0) - '0';
    Cloud(status >= cc_bootstrap && status <= cc_connected ? status : cc_connected, start.size() > 1)
        .play(input);
}

void packages(Input input) {
    const std::string id(input.until('\f')), version(input.until('\f')), parameter(input.until('\f'));
    const std::string control(input.rest());
    Packages stage;
    char name[plugin_id_size] = "weather";
    cc_parse_plugin_id(id.c_str(), name);
    std::string file = std::string(name) + ".control";
    file.erase(0, file.rfind('/') + 1);
    put_file(file, control);
    stage.request("SetPluginParams", id, version, parameter);
    stage.request("Stop", id, version, "");
    stage.request("ListPlugin", id, version, "");
    check_plugin_id(name);
    check_plugin_id(id.c_str());
    check_control(control, file_folder() + file);
}

}  // namespace arvok::fuzz
