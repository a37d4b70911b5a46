#include "access/restrictions.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "access/schedule.h"
#include "access/texts.h"
#include "base/handle.h"
#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char restriction_file[] = "extcc-lhpc.cfg";

}  // namespace

restrictions::restrictions(const std::string &folder) : path_(folder + restriction_file) {
    load();
}

void restrictions::load() {
    const file_handle file(std::fopen(path_.c_str(), "re"));
    char line[rule_line_size];
    while (file && std::fgets(line, sizeof line, file.get())) {
        char mac[16] = "", kinds[4] = "", internet[4] = "", down_limit[16] = "", up_limit[16] = "";
        std::sscanf(line, "%15[^|]|%3[^|]|%3[^|]|%15[^|]|%15[^\n]", mac, kinds, internet, down_limit,
                    up_limit);
        restriction &entry = add(mac);
        entry.kinds = number_of(kinds);
        if (entry.kinds & restricts_internet)
            entry.internet = number_of(internet);
        if (entry.kinds & restricts_rate) {
            entry.up_limit = number_of(up_limit);
            entry.down_limit = number_of(down_limit);
        }
    }
}

restriction &restrictions::add(std::string_view mac) {
    restriction &entry = entries_.emplace_front();
    entry.mac = mac;
    newest_[upper_case(mac)] = &entry;
    return entry;
}

restriction *restrictions::find(std::string_view mac) const {
    const auto found = newest_.find(upper_case(kept_mac(mac)));
    return found == newest_.end() ? nullptr : found->second;
}

bool restrictions::blocks(std::string_view mac) const {
    const restriction *entry = find(mac);
    return entry && entry->kinds & restricts_internet && entry->internet != unrestricted;
}

restriction &restrictions::entry_with(restriction_kind kind, std::string_view mac) {
    restriction *known = find(mac);
    restriction &entry = known ? *known : add(kept_mac(mac));
    entry.kinds |= kind;
    return entry;
}

void restrictions::drop(restriction_kind kind) {
    entries_.remove_if([kind](const restriction &entry) { return entry.kinds == kind; });
    newest_.clear();
    for (restriction &entry : entries_) {
        entry.kinds &= ~std::uint32_t{kind};
        newest_.emplace(upper_case(entry.mac), &entry);  // keeps the first, which is the newest
    }
}

void restrictions::save() const {
    const file_handle file(std::fopen(path_.c_str(), "w+e"));
    if (!file) {
        log_printf("[ERROR] %s: failed to save _save_pr_cfg %s\n", path_.c_str(), std::strerror(errno));
        return;
    }
    for (const restriction &entry : entries_)
        std::fprintf(file.get(), "%s|%u|%u|%u|%u\n", one_line(entry.mac).c_str(), entry.kinds, entry.internet,
                     entry.down_limit, entry.up_limit);
    std::fflush(file.get());
    fsync(fileno(file.get()));
}

}  // namespace arvok::access
