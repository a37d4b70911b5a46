#include "access/schedules.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "access/texts.h"
#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char schedule_file[] = "extcc-lht.cfg";
constexpr char schedule_copy[] = "extcc-lht.cfg.bk";

enum class copied { none, all, some };

// Copies the lines of a file that do not contain the text. None also when the copy is not whole: with a full
// disk the rules that are to stay would be lost with those that go.
copied copy_without(std::string_view text, const std::string &path, const std::string &copy_path) {
    const file_handle file(std::fopen(path.c_str(), "re"));
    if (!file)
        return copied::none;
    file_handle copy(std::fopen(copy_path.c_str(), "w+e"));
    if (!copy)
        return copied::none;
    char *buffer = nullptr;
    std::size_t room = 0;
    bool all = true;
    for (ssize_t length; (length = getline(&buffer, &room, file.get())) > 0;) {
        const std::string_view line(buffer, static_cast<std::size_t>(length));
        if (contains(line, text))
            all = false;
        else
            std::fwrite(line.data(), 1, line.size(), copy.get());
    }
    std::free(buffer);
    const bool whole =
        std::fflush(copy.get()) == 0 && fsync(fileno(copy.get())) == 0 && !std::ferror(copy.get());
    if (std::fclose(copy.release()) != 0 || !whole)
        return copied::none;
    return all ? copied::all : copied::some;
}

}  // namespace

schedules::schedules(const std::string &folder)
    : path_(folder + schedule_file), copy_path_(folder + schedule_copy) {
    reader lines(*this);
    while (const auto line = lines.next())
        add(line->mac, {static_cast<std::uint8_t>(std::atoi(line->enable.c_str())),
                        static_cast<std::uint8_t>(std::atoi(line->mode.c_str())), line->start, line->end});
}

const host_schedule *schedules::find(std::string_view mac) const {
    const auto found = by_mac_.find(upper_case(mac));
    return found == by_mac_.end() ? nullptr : found->second;
}

const host_schedule *schedules::find(const qzcap_laninfo &host) const {
    return host.mac ? find(std::string_view(host.mac)) : nullptr;
}

void schedules::add(std::string_view mac, schedule_rule rule) {
    const std::string_view kept = kept_mac(mac);
    host_schedule *&host = by_mac_[upper_case(kept)];
    if (!host)
        host = &hosts_.emplace_front(host_schedule{std::string(kept)});
    host->rules.push_front(std::move(rule));
}

void schedules::remove(std::string_view mac) {
    remove_lines(mac);
    const std::string_view kept = kept_mac(mac);
    host_to_free_ = kept;
    const auto found = by_mac_.find(upper_case(kept));
    if (found == by_mac_.end())
        return;
    hosts_.remove_if([host = found->second](const host_schedule &other) { return &other == host; });
    by_mac_.erase(found);
}

void schedules::remove_lines(std::string_view mac) const {
    const copied result = copy_without(mac, path_, copy_path_);
    if (result == copied::some && std::rename(copy_path_.c_str(), path_.c_str()) == 0)
        return;
    std::remove(copy_path_.c_str());
}

// What was cut off in the middle of the file's last line does not take the next one along.
schedules::addition::addition(schedules &to) : to_(to), file_(std::fopen(to.path_.c_str(), "a+e")) {
    if (!file_) {
        log_printf("[ERROR] set_lanhost_timer: failed to save %s %s\n", to.path_.c_str(),
                   std::strerror(errno));
        return;
    }
    const bool cut = std::fseek(file_.get(), -1, SEEK_END) == 0 && std::fgetc(file_.get()) != '\n';
    std::fseek(file_.get(), 0, SEEK_END);
    if (cut)
        std::fputc('\n', file_.get());
}

schedules::addition::~addition() {
    if (!file_)
        return;
    std::fflush(file_.get());
    fsync(fileno(file_.get()));
}

void schedules::addition::add(std::string_view mac, const schedule_rule &rule, std::string_view continue_id,
                              std::string_view group_id) {
    if (file_) {
        std::string line(mac);
        line.append("|").append(std::to_string(rule.mode)).append("|").append(rule.start);
        line.append("|").append(rule.end).append("|").append(std::to_string(rule.enable));
        line.append("|").append(continue_id).append("|").append(group_id);
        std::fprintf(file_.get(), "%s\n", one_line(std::move(line)).c_str());
    }
    to_.add(mac, rule);
}

schedules::reader::reader(const schedules &from) : file_(std::fopen(from.path_.c_str(), "re")) {}

std::optional<schedule_line> schedules::reader::next() {
    char text[rule_line_size];
    if (!file_ || !std::fgets(text, sizeof text, file_.get()))
        return std::nullopt;
    char mac[16] = "", mode[8] = "", start[8] = "", end[8] = "", enable[3] = "", continue_id[16] = "",
         group_id[16] = "";
    std::sscanf(text, "%15[^|]|%7[^|]|%7[^|]|%7[^|]|%2[^|]|%15[^|]|%15[^\n]", mac, mode, start, end, enable,
                continue_id, group_id);
    return schedule_line{mac, mode, start, end, enable, continue_id, group_id};
}

}  // namespace arvok::access
