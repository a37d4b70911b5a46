#include "cloud/settings.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdint>

#include "base/log.h"
#include "base/text.h"
#include "platform/records.h"
#include "provisioning.h"

namespace arvok::cloud {
namespace {

constexpr char default_port[] = "8088";

void log_bootstrap(const server &bootstrap) {
    log_printf("[INFO] bss:       %s:%s\n", bootstrap.host.c_str(), bootstrap.port.c_str());
}

// A text that the platform releases as it is.
void overwrite(char *text) {
    OPENSSL_cleanse(text, view_of(text).size());
}

void read_servers(settings &to, const qzcap_serverinfo &stored) {
    to.bootstrap = parse_server(view_of(stored.bss));
    std::size_t count = 0;
    if (stored.abi)
        to.business[count++] = parse_server(stored.abi);
    for (std::uint32_t i = 0; stored.abi_list && i < stored.abi_count && count < business_max; i++)
        to.business[count++] = parse_server(view_of(stored.abi_list[i]));
}

void read_identity(settings &to, const qzcap_serverinfo &stored) {
    to.device_token = view_of(stored.devtoken);
    to.device_id = view_of(stored.devid);
    overwrite(stored.devtoken);
    if (to.is_activated())
        return;
    to.device_token = "";
    to.device_id = "";
}

// Logs the usable business servers and empties the other places.
void check_business(business_servers &servers) {
    for (std::size_t i = 0; i < servers.size(); i++) {
        server &at = servers[i];
        if (is_valid(at))
            log_printf("[INFO] abi[%d]:    %s:%s\n", static_cast<int>(i), at.host.c_str(), at.port.c_str());
        else
            at = {};
    }
}

// The first business server has a member of its own.
void fill_business(qzcap_serverinfo &record, const business_servers &servers) {
    const auto count =
        std::count_if(servers.begin(), servers.end(), [](const server &s) { return !s.empty(); });
    if (count == 0)
        return;
    record.abi_list =
        static_cast<char **>(qzcap_calloc(static_cast<std::size_t>(count), sizeof *record.abi_list));
    if (!record.abi_list)
        log_printf("[ERROR] set_server_info %d qzcap_calloc failed\n", __LINE__);
    for (const server &business : servers) {
        if (business.empty())
            continue;
        if (!record.abi)
            platform::replace_text(record.abi, business.text());
        else if (record.abi_list)
            platform::replace_text(record.abi_list[record.abi_count++], business.text());
    }
}

}  // namespace

settings load_settings(const std::optional<server> &given) {
    settings loaded;
    if (given) {
        loaded.bootstrap = *given;
        log_bootstrap(loaded.bootstrap);
        return loaded;
    }
    const platform::server_record stored(platform::call(qzcap_get_serverinfo));
    if (stored)
        read_servers(loaded, *stored);
    else
        log_printf("[ERROR] qzcap get serverinfo failed\n");
    if (!is_valid(loaded.bootstrap))
        loaded.bootstrap = {default_bss_host, default_port};
    log_bootstrap(loaded.bootstrap);
    check_business(loaded.business);
    if (stored)
        read_identity(loaded, *stored);
    return loaded;
}

bool settings::has_business() const {
    return std::any_of(business.begin(), business.end(), [](const server &s) { return !s.empty(); });
}

void settings::store() const {
    const platform::server_record record(
        static_cast<qzcap_serverinfo *>(qzcap_calloc(1, sizeof(qzcap_serverinfo))));
    if (!record) {
        log_printf("[ERROR] set_server_info %d qzcap_calloc failed\n", __LINE__);
        return;
    }
    platform::replace_text(record->bss, bootstrap.text());
    fill_business(*record, business);
    platform::replace_text(record->devtoken, device_token.text());
    platform::replace_text(record->devid, device_id);
    platform::reason why;
    if (platform::call(qzcap_set_serverinfo, record.get(), why) < 0)
        log_printf("[ERROR] qzcap set serverinfo failed: %s\n", why.c_str());
    overwrite(record->devtoken);
}

void settings::clear_identity() {
    device_id = "";
    device_token = "";
    store();
}

}  // namespace arvok::cloud
