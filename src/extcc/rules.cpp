#include "extcc/rules.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/files.h"
#include "common/text.h"
#include "context.h"

namespace arvok {

const char *rule_folder = "/qzcap/apps/arvokclt/";

namespace {

constexpr char schedule_copy[] = "extcc-lht.cfg.bk";
constexpr int load_line = 256;  // a longer line of a rule file counts as several

file_ptr open_rules(const char *name, const char *mode) {
    return file_ptr(std::fopen(rule_path(name).c_str(), mode));
}

std::string mac_key(const char *mac) {
    std::string key(mac);
    for (char &c : key)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return key;
}

template <typename Node>
Node *find_newest(const std::unordered_map<std::string, Node *> &index, const char *mac) {
    if (!mac)
        return nullptr;
    const auto found = index.find(mac_key(mac));
    return found == index.end() ? nullptr : found->second;
}

void load_schedules() {
    for (const schedule_line &line : schedule_lines())
        _add_mac_to_list(line.mac, line.start, line.end, std::atoi(line.enable), std::atoi(line.mode));
}

void load_parent_rules() {
    const file_ptr file = open_rules(parent_file, "re");
    char line[load_line];
    while (file && std::fgets(line, sizeof line, file.get())) {
        char mac[16] = "", flags[4] = "", internet[4] = "", down_limit[16] = "", up_limit[16] = "";
        std::sscanf(line, "%15[^|]|%3[^|]|%3[^|]|%15[^|]|%15[^\n]", mac, flags, internet, down_limit,
                    up_limit);
        _add_parent_rule(mac, uint_value(flags), uint_value(internet), uint_value(down_limit),
                         uint_value(up_limit));
    }
}

void index_parent_rules() {
    g_ctx.extcc.parent_index.clear();
    for (parent_rule &rule : g_ctx.extcc.parent_rules)
        g_ctx.extcc.parent_index.emplace(mac_key(rule.mac), &rule);  // keeps the first, which is the newest
}

enum class copied { none, all, some };

// Copies the lines of the schedule file that do not contain the text. None also when the copy is not whole:
// with a full disk the rules that are to stay would be lost with those that go.
copied copy_without(const char *mac) {
    const file_ptr file = open_rules(schedule_file, "re");
    if (!file)
        return copied::none;
    file_ptr copy = open_rules(schedule_copy, "w+e");
    if (!copy)
        return copied::none;
    char *buffer = nullptr;
    std::size_t room = 0;
    bool all = true;
    for (ssize_t length; (length = getline(&buffer, &room, file.get())) > 0;) {
        const auto size = static_cast<std::size_t>(length);
        if (mac && !memmem(buffer, size, mac, std::strlen(mac)))
            std::fwrite(buffer, 1, size, copy.get());
        else
            all = false;
    }
    std::free(buffer);
    const bool whole =
        std::fflush(copy.get()) == 0 && fsync(fileno(copy.get())) == 0 && !std::ferror(copy.get());
    if (std::fclose(copy.release()) != 0 || !whole)
        return copied::none;
    return all ? copied::all : copied::some;
}

}  // namespace

std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string rule_path(const char *name) {
    return std::string(rule_folder) + name;
}

void load_rules() {
    clear_rules();
    load_schedules();
    load_parent_rules();
}

void clear_rules() {
    g_ctx.extcc.timer_index.clear();
    g_ctx.extcc.timer_hosts.clear();
    g_ctx.extcc.parent_index.clear();
    g_ctx.extcc.parent_rules.clear();
}

timer_host *_find_timer_host(const char *mac) {
    return find_newest(g_ctx.extcc.timer_index, mac);
}

parent_rule *_find_parent_rule(const char *mac) {
    return find_newest(g_ctx.extcc.parent_index, mac);
}

void _add_mac_to_list(const char *mac, const char *start, const char *end, int enable, int mode) {
    char cut[rule_mac_size];
    _strlcpy(cut, mac, sizeof cut);
    timer_host *host = _find_timer_host(cut);
    if (!host) {
        host = &g_ctx.extcc.timer_hosts.emplace_front();
        _strlcpy(host->mac, cut, sizeof host->mac);
        g_ctx.extcc.timer_index.emplace(mac_key(cut), host);
    }
    schedule_rule &rule = host->rules.emplace_front();
    rule.enable = static_cast<std::uint8_t>(enable);
    rule.mode = static_cast<std::uint8_t>(mode);
    _strlcpy(rule.start, start, sizeof rule.start);
    _strlcpy(rule.end, end, sizeof rule.end);
}

void _add_parent_rule(const char *mac, std::uint32_t flags, std::uint32_t internet, std::uint32_t down_limit,
                      std::uint32_t up_limit) {
    parent_rule &rule = g_ctx.extcc.parent_rules.emplace_front();
    _strlcpy(rule.mac, mac, sizeof rule.mac);
    rule.flags = flags;
    if (flags & parent_internet)
        rule.internet = internet;
    if (flags & parent_rate) {
        rule.up_limit = up_limit;
        rule.down_limit = down_limit;
    }
    g_ctx.extcc.parent_index[mac_key(rule.mac)] = &rule;
}

void remove_timer_host(const char *mac) {
    const timer_host *host = _find_timer_host(mac);
    if (!host)
        return;
    g_ctx.extcc.timer_index.erase(mac_key(mac));
    g_ctx.extcc.timer_hosts.remove_if([host](const timer_host &node) { return &node == host; });
}

void drop_parent_flag(parent_flag flag) {
    g_ctx.extcc.parent_rules.remove_if([flag](const parent_rule &rule) { return rule.flags == flag; });
    for (parent_rule &rule : g_ctx.extcc.parent_rules)
        rule.flags &= ~static_cast<std::uint32_t>(flag);
    index_parent_rules();
}

std::vector<schedule_line> schedule_lines() {
    std::vector<schedule_line> lines;
    const file_ptr file = open_rules(schedule_file, "re");
    char text[load_line];
    while (file && std::fgets(text, sizeof text, file.get())) {
        schedule_line &line = lines.emplace_back();
        std::sscanf(text, "%15[^|]|%7[^|]|%7[^|]|%7[^|]|%2[^|]|%15[^|]|%15[^\n]", line.mac, line.mode,
                    line.start, line.end, line.enable, line.continue_id, line.group_id);
    }
    return lines;
}

void _save_pr_cfg() {
    const std::string path = rule_path(parent_file);
    const file_ptr file(std::fopen(path.c_str(), "w+e"));
    if (!file) {
        qzcap_printf("[ERROR] %s: failed to save %s %s\n", path.c_str(), "_save_pr_cfg",
                     std::strerror(errno));
        return;
    }
    for (const parent_rule &rule : g_ctx.extcc.parent_rules)
        std::fprintf(file.get(), "%s|%u|%u|%u|%u\n", one_line(rule.mac).c_str(), rule.flags, rule.internet,
                     rule.down_limit, rule.up_limit);
    std::fflush(file.get());
    fsync(fileno(file.get()));
}

void _remove_timer_lines(const char *mac) {
    const std::string path = rule_path(schedule_file), copy_path = rule_path(schedule_copy);
    const copied result = copy_without(mac);
    if (result == copied::some && std::rename(copy_path.c_str(), path.c_str()) == 0)
        return;
    std::remove(copy_path.c_str());
}

int guest_index() {
    char text[16] = "";
    _read_file(rule_path(guest_index_file).c_str(), text, sizeof text - 1);
    return std::atoi(text);
}

int _is_valid_hhmm(const char *text) {
    if (_strcmp(text, "24:00") == 0)
        return 1;
    const int length = _strlen(text);
    if (length != 4 && length != 5)
        return 0;
    for (int i = 0; i < length; i++) {
        const bool colon = i == length - 3;
        if (colon ? text[i] != ':' : !std::isdigit(static_cast<unsigned char>(text[i])))
            return 0;
    }
    return std::atoi(text) <= 23;
}

std::uint32_t uint_value(const char *text) {
    return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

int _is_uint_in(const char *text, unsigned long min, unsigned long max) {
    if (!text || !*text)
        return 0;
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    return errno == 0 && !*end && min <= value && value <= max;
}

}  // namespace arvok
