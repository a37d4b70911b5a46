// "control": commands of the gateway to the device, and the vendor-specific elements (VSIE) that some of them
// send.

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "arvok_client/handlers.h"
#include "arvok_client/request_members.h"
#include "common/identity.h"
#include "common/table.h"

namespace arvok {
namespace {

constexpr char vsie_owner[] = "arvokclt";
constexpr int vsie_lifetime_max = 300;  // seconds
constexpr int vsie_size_max = 256;      // bytes of an element

void reboot(const cJSON *) {
    ec->actions |= action_reboot;
}

void reset(const cJSON *) {
    ec->actions |= action_reset;
}

// Settings are stored as they are made; older gateways still ask.
void save(const cJSON *) {}

// The payload of an element: base64 of hex digits, two to a byte; an odd last digit is a high half.
bool decode_vsie(const char *data, std::vector<unsigned char> &payload) {
    text_ptr digits;
    if (_do_b64_code(data, _strlen(data), digits, false) < 0)
        return false;
    const int count = _strlen(digits.get());
    if (count > vsie_size_max * 2)
        return false;
    payload.assign(static_cast<std::size_t>(count + 1) / 2, 0);
    for (int i = 0; i < count; i++) {
        const int nibble = _h2d(digits.get()[i]);
        payload[static_cast<std::size_t>(i / 2)] |= static_cast<unsigned char>(i % 2 ? nibble : nibble << 4);
    }
    return true;
}

// The payload of a command whose members are all valid; false after recording that it is none.
bool payload_of(request_members &members, const char *data, std::vector<unsigned char> &payload) {
    if (members.ok() && !decode_vsie(data, payload))
        members.refuse("data");
    return members.ok();
}

void sendvsie(const cJSON *element) {
    request_members members(element);
    const char *id = members.text("id");
    members.text("band");
    const char *data = members.text("data");
    const int lifetime = members.number("persist");
    std::vector<unsigned char> payload;
    if (!payload_of(members, data, payload))
        return;

    std::string owner = vsie_owner;
    const qzcap_vsie_beacontx beacon{
        .name = owner.data(),
        .flag = 1,
        .lifetime = static_cast<std::uint32_t>(
            lifetime >= 1 && lifetime <= vsie_lifetime_max ? lifetime : vsie_lifetime_max),
        .data = payload.data(),
        .length = static_cast<std::uint32_t>(payload.size())};
    char *reason = nullptr;
    const int index = qzcap_add_vsie_beacontx(&beacon, &reason);
    if (index < 0)
        return arvok_set_platform_error("qzcap_add_vsie_beacontx", reason);

    vsie_node node{index, ""};
    _strlcpy(node.id, id, sizeof node.id);
    if (qzcap_vsie_beacontx_action(index, "start", &reason) < 0)
        return arvok_set_platform_error("qzcap_vsie_beacontx_action", reason);
    ec->vsie_list.push_front(node);
}

void stopvsie(const cJSON *element) {
    request_members members(element);
    const char *id = members.text("id");
    if (!members.ok())
        return;
    const auto found = std::find_if(ec->vsie_list.begin(), ec->vsie_list.end(),
                                    [id](const vsie_node &n) { return !std::strcmp(n.id, id); });
    if (found == ec->vsie_list.end())
        return arvok_set_error(err_invalid_parameter, "id not found");
    const std::int32_t index = found->index;
    ec->vsie_list.erase(found);
    char *reason = nullptr;
    if (index >= 0 && qzcap_vsie_beacontx_action(index, "stop", &reason) < 0)
        arvok_set_platform_error("qzcap_vsie_beacontx_action", reason);
}

void proberesp(const cJSON *element) {
    request_members members(element);
    members.text("id");
    members.text("band");
    const char *data = members.text("data");
    const char *mac = members.text("mac");
    std::vector<unsigned char> payload;
    if (!payload_of(members, data, payload))
        return;
    const qzcap_vsie_proberesp response{.mac = const_cast<char *>(mac),  // only read
                                        .flag = 0,
                                        .data = payload.data(),
                                        .length = static_cast<std::uint32_t>(payload.size())};
    char *reason = nullptr;
    if (qzcap_add_vsie_proberesp(&response, &reason) < 0)
        arvok_set_platform_error("qzcap_add_vsie_proberesp", reason);
}

void channelscan(const cJSON *) {
    char *reason = nullptr;
    if (qzcap_wifi_channelscan(&reason) < 0)
        arvok_set_platform_error("qzcap_wifi_channelscan", reason);
}

struct command_row {
    const char *name;
    void (*command)(const cJSON *element);
};

constexpr command_row commands[] = {
    {"reboot", reboot},     {"reset", reset},       {"save", save},           {"deassociation", deassociate},
    {"sendvsie", sendvsie}, {"stopvsie", stopvsie}, {"proberesp", proberesp}, {"channelscan", channelscan},
};

}  // namespace

void deassociate(const cJSON *element) {
    request_members members(element);
    const std::vector<const char *> macs = members.text_or_texts("mac");
    if (!members.ok())
        return;
    char *reason = nullptr;
    if (qzcap_wifi_deassociation(macs.data(), static_cast<unsigned>(macs.size()), &reason) < 0)
        arvok_set_platform_error("qzcap_wifi_deassociation", reason);
}

int arvok_control(const cJSON *root, reply_context &context) {
    if (!valid_envelope(root, context))
        return 0;
    const cJSON *data = json_member(root, "data");
    if (!cJSON_IsArray(data)) {
        qzcap_printf("[ERROR] invalid data\n");
        return 0;
    }
    for (const cJSON *element = data->child; element; element = element->next) {
        const char *name = json_text(element, "command");
        if (!name) {
            qzcap_printf("[ERROR] invalid command\n");
            continue;
        }
        if (const command_row *row = find_row(commands, name))
            row->command(element);
        else
            arvok_set_error(err_not_supported, "unknown command: %s", name);
    }
    context.reply = ack_reply(root);
    return 1;
}

int arvok_qlink(const cJSON *, reply_context &) {
    arvok_set_error(err_not_supported, "Arvok AP without this interface");
    return 1;
}

}  // namespace arvok
