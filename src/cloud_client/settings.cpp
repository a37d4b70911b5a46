// The cloud client's servers and identity: taken from the platform at the start, handed back whenever they
// change, so that a restart resumes at the business server with the identity it has.

#include <cstdio>

#include "cloud_client/cloud_client.h"
#include "common/text.h"
#include "context.h"
#include "provisioning.h"

namespace arvok {
namespace {

constexpr char default_bss_port[] = "8088";
constexpr std::size_t server_text_size = 64;

using serverinfo_ptr = handle<qzcap_serverinfo, &qzcap_free_serverinfo>;

void begin_at_bootstrap() {
    cc->server_kind = server_bss;
    cc->status = cc_bootstrap;
    cc->boot_reason = boot_start;
}

void log_bss() {
    qzcap_printf("[INFO] bss:       %s:%s\n", cc->bss.host, cc->bss.port);
}

void load_servers(const qzcap_serverinfo &stored) {
    str_to_server(stored.bss, cc->bss);
    std::size_t count = 0;
    if (stored.abi)
        str_to_server(stored.abi, cc->abi[count++]);
    for (std::size_t i = 0; i < stored.abi_count && count < abi_max; i++)
        str_to_server(stored.abi_list[i], cc->abi[count++]);
}

void load_identity(const qzcap_serverinfo &stored) {
    if (_strlen(stored.devtoken) < 1 || _strlen(stored.devid) < 1)
        return;
    cc->devtoken = _strdup(stored.devtoken);
    cc->devid = _strdup(stored.devid);
    cc->activated = 1;
}

// Logs the usable business servers and empties the other entries; true when there is one.
bool check_business_servers() {
    bool any = false;
    for (std::size_t i = 0; i < abi_max; i++) {
        if (!is_valid_server(cc->abi[i])) {
            cc->abi[i] = {};
            continue;
        }
        qzcap_printf("[INFO] abi[%d]:    %s:%s\n", static_cast<int>(i), cc->abi[i].host, cc->abi[i].port);
        any = true;
    }
    return any;
}

char *server_text(const server &record) {
    char text[server_text_size];
    std::snprintf(text, sizeof text, "%s:%s", record.host, record.port);
    return qzcap_strdup(text);
}

void log_no_memory(int line) {
    qzcap_printf("[ERROR] %s %d qzcap_calloc failed\n", "set_server_info", line);
}

void fill_business_servers(qzcap_serverinfo &record) {
    std::uint32_t count = 0;
    for (const server &business : cc->abi)
        count += business.state != server_empty;
    if (count == 0)
        return;
    record.abi_list = static_cast<char **>(qzcap_calloc(count, sizeof(char *)));
    if (!record.abi_list)
        log_no_memory(__LINE__);
    for (const server &business : cc->abi) {
        if (business.state == server_empty)
            continue;
        if (!record.abi)
            record.abi = server_text(business);
        else if (record.abi_list)
            record.abi_list[record.abi_count++] = server_text(business);
    }
}

}  // namespace

void cc_load_settings() {
    if (g_ctx.bss_server_set) {
        cc->bss = g_ctx.bss_server;
        log_bss();
        return begin_at_bootstrap();
    }
    const serverinfo_ptr stored(qzcap_get_serverinfo());
    if (stored)
        load_servers(*stored);
    else
        qzcap_printf("[ERROR] qzcap get serverinfo failed\n");
    if (!is_valid_server(cc->bss)) {
        _strlcpy(cc->bss.host, default_bss_host, sizeof cc->bss.host);
        _strlcpy(cc->bss.port, default_bss_port, sizeof cc->bss.port);
        cc->bss.state = server_untried;
    }
    log_bss();
    const bool any_business = check_business_servers();
    if (stored)
        load_identity(*stored);
    if (any_business) {
        cc->server_kind = server_abi;
        cc->status = cc_challenge;
    } else {
        begin_at_bootstrap();
    }
}

void set_server_info() {
    const serverinfo_ptr record(static_cast<qzcap_serverinfo *>(qzcap_calloc(1, sizeof(qzcap_serverinfo))));
    if (!record)
        return log_no_memory(__LINE__);
    record->bss = server_text(cc->bss);
    fill_business_servers(*record);
    record->devtoken = qzcap_strdup(text_or_empty(cc->devtoken.get()));
    record->devid = qzcap_strdup(text_or_empty(cc->devid.get()));
    char *reason = nullptr;
    const int result = qzcap_set_serverinfo(record.get(), &reason);
    const qz_text errtext(reason);
    if (result < 0)
        qzcap_printf("[ERROR] qzcap set serverinfo failed: %s\n", text_or_empty(errtext.get()));
}

void cc_clear_identity() {
    cc->devid.reset();
    cc->devtoken.reset();
    cc->activated = 0;
    set_server_info();
}

}  // namespace arvok
