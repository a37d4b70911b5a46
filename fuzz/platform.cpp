#include "platform.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "base/bus_message.h"
#include "base/files.h"
#include "base/handle.h"

namespace arvok::fuzz {

platform_state platform;

namespace {

using blob_ptr = handle<blob_attr, &::free>;
using records = std::vector<blob_ptr>;

std::map<std::string, records, std::less<>> device;  // by name, or name and band
std::string long_text;

void add_record(const std::string &name, const cJSON *record) {
    bus_message message;
    if (!message.add_json(malloc_text(cJSON_PrintUnformatted(record)).get()))
        std::abort();
    device[name].emplace_back(blob_memdup(message.get()));
}

// The names of a list's members are a field of its records.
void add_list(const std::string &name, const cJSON *list, std::string_view key) {
    device[name];
    for (cJSON *record = list->child; record; record = record->next) {
        if (key == "index" || key == "id")
            cJSON_AddNumberToObject(record, key.data(), std::atoi(record->string));
        else if (!key.empty())
            cJSON_AddStringToObject(record, key.data(), record->string);
        add_record(name, record);
    }
}

char next_fate() {
    if (platform.fate.empty())
        return ' ';
    const char fate = platform.fate.front();
    platform.fate.remove_prefix(1);
    return fate;
}

char *&text_of(void *record, const capi::Field &field) {
    return *reinterpret_cast<char **>(static_cast<char *>(record) + field.offset);
}

void set_text(void *record, const capi::Field &field, const char *value) {
    char *&text = text_of(record, field);
    qzcap_free(text);
    text = qzcap_strdup(value);
}

void make_text_odd(const capi::Field &field, void *record, char fate) {
    if (fate == 'n')
        set_text(record, field, nullptr);
    else if (fate == 'l')
        set_text(record, field, long_text.c_str());
    else if (fate == 'm')
        set_text(record, field, "%n|\"\\\n\t:../\xe4\xf0");
    else if (fate == 'r' && std::strcmp(field.name, "mode") == 0)
        set_text(record, field, "router");
    else if (fate == 's' && std::strcmp(field.name, "support_5g") == 0)
        set_text(record, field, "no");
}

void make_number_odd(const capi::Field &field, void *record, char fate) {
    auto &number = *reinterpret_cast<std::uint32_t *>(static_cast<char *>(record) + field.offset);
    if (fate == 'h')
        number = 0xffffffff;
    else if (fate == 'g' && std::strcmp(field.name, "guest") == 0)
        number = 1;
}

void make_odd(const capi::Record &kind, void *record, char fate) {
    for (const capi::Field &field : kind.fields) {
        if (field.type == capi::FieldType::text)
            make_text_odd(field, record, fate);
        else if (field.type == capi::FieldType::u32 || field.type == capi::FieldType::i32)
            make_number_odd(field, record, fate);
    }
}

void *make_record(const capi::Record &kind, const blob_ptr &source, char fate) {
    void *record = capi::take_record(kind, source.get());
    if (!record)
        std::abort();  // home.json does not fit the records
    make_odd(kind, record, fate);
    return record;
}

const records &of_device(const char *name, const char *band) {
    const auto found = device.find(band ? std::string(name) + band : name);
    if (found == device.end())
        std::abort();
    return found->second;
}

}  // namespace

void platform_init() {
    long_text.assign(300, 'A');
    const file_content content = read_file(ARVOK_HOME_JSON, 1 << 20);
    const auto *text = std::get_if<std::string>(&content);
    const handle<cJSON, &cJSON_Delete> state(text ? cJSON_Parse(text->c_str()) : nullptr);
    if (!state) {
        std::fprintf(stderr, "%s cannot be read\n", ARVOK_HOME_JSON);
        std::exit(1);
    }
    const auto at = [&state](const char *name) { return cJSON_GetObjectItem(state.get(), name); };
    for (const char *name : {"devinfo", "diagnostics", "netstatinfo", "terminalnum", "serverinfo", "waninfo",
                             "wifi_switch", "roaming", "mesh", "mesh_roaming", "backhaulbss"})
        add_record(name, at(name));
    add_list("laninfo", at("laninfo"), "mac");
    add_list("wifi_timer", at("wifi_timer"), "id");
    add_list("neighbourinfo", at("neighbourinfo"), "");
    add_list("app", at("app"), "name");
    for (const std::string band : {"2.4G", "5G"}) {
        add_record("wifiinfo" + band, cJSON_GetObjectItem(at("wifiinfo"), band.c_str()));
        add_list("wifi_ap" + band, cJSON_GetObjectItem(at("wifi_ap"), band.c_str()), "index");
        for (const char *name : {"wifi_apstat", "channel_score"})
            add_list(name + band, cJSON_GetObjectItem(at(name), band.c_str()), "");
    }
}

void platform_reset() {
    platform = {};
}

void finish_installation(blob_attr *outcome) {
    if (platform.installations.empty())
        return;
    const installation ended = platform.installations.front();
    platform.installations.erase(platform.installations.begin());
    ubus_request request{};
    request.priv = ended.priv;
    ended.done(&request, outcome);
}

void notify(unsigned which, const char *method, blob_attr *message) {
    if (platform.subscribers.empty())
        return;
    ubus_subscriber *subscriber = platform.subscribers[which % platform.subscribers.size()];
    subscriber->cb(qzcap_get_ubus_context(), &subscriber->obj, nullptr, method, message);
}

int outcome(char **errtext) {
    const bool fails = next_fate() == 'f';
    if (errtext)
        *errtext = fails ? qzcap_strdup("no such luck") : nullptr;
    return fails ? -1 : 0;
}

int outcome(const capi::Record &kind, const void *record, char **errtext) {
    static blob_buf buf{};
    blob_buf_init(&buf, 0);
    capi::put_record(&buf, kind, record, capi::Fields::all);
    return outcome(errtext);
}

void *fetch_record(const capi::Record &kind, const char *name, const char *band, unsigned n) {
    const char fate = next_fate();
    const records &all = of_device(name, band);
    return fate == 'f' || n >= all.size() ? nullptr : make_record(kind, all[n], fate);
}

int fetch_list(const capi::Record &kind, const char *name, const char *band, unsigned *count, void ***list) {
    const char fate = next_fate();
    if (fate == 'f')
        return -1;
    const records &all = of_device(name, band);
    *count = fate == 'e' || platform.lists_empty ? 0 : static_cast<unsigned>(all.size());
    *list = static_cast<void **>(qzcap_calloc(*count + 1, sizeof(void *)));
    for (unsigned i = 0; i < *count; i++)
        (*list)[i] = make_record(kind, all[i], fate);
    return 0;
}

}  // namespace arvok::fuzz
