#include "access/guest_files.h"

#include <cstdio>
#include <cstdlib>
#include <variant>

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr char index_name[] = "extcc-gst-idx.cfg";
constexpr char closing_name[] = "extcc-gst-tmr.cfg";
constexpr std::size_t index_max = 15;
constexpr std::size_t followed_max = 128;  // bytes of the closing time's file, when it is followed
constexpr std::size_t told_max = 160;      // and when it is told

// Nothing when the disk does not tell.
std::optional<file_content> read(const std::string &path, std::size_t size) {
    file_content content = read_file(path, size);
    const auto *failed = std::get_if<unreadable_file>(&content);
    if (!failed)
        return content;
    log_printf("[ERROR] extcc: failed to read %s %s\n", path.c_str(), failed->why.c_str());
    return std::nullopt;
}

// Whether a file is on the disk as it should be.
bool is_saved(const std::string &path, const std::optional<std::string> &why) {
    if (why)
        log_printf("[ERROR] extcc: failed to save %s %s\n", path.c_str(), why->c_str());
    return !why;
}

std::optional<guest_schedule> schedule_in(const std::string &text) {
    char enable[8] = "", last_time[8] = "";
    long long start = 0;
    if (std::sscanf(text.c_str(), "%*[^\t]\t%7[^\t]\t%*[^\t]\t%lld\t%*[^\t]\t%7[^\n]", enable, &start,
                    last_time) != 3)
        return std::nullopt;
    return guest_schedule{std::atoi(enable) != 0, start, std::atoi(last_time)};
}

}  // namespace

guest_files::guest_files(const std::string &folder)
    : index_path_(folder + index_name), closing_path_(folder + closing_name) {}

std::optional<guest_index> guest_files::index() const {
    const auto content = read(index_path_, index_max);
    if (!content)
        return std::nullopt;
    const auto *text = std::get_if<std::string>(&*content);
    return text ? guest_index{std::atoi(text->c_str()), true} : guest_index();
}

std::optional<guest_closing> guest_files::closing() const {
    const auto content = read(closing_path_, told_max);
    if (!content)
        return std::nullopt;
    const auto *text = std::get_if<std::string>(&*content);
    if (!text)
        return guest_closing();
    char enable[8] = "", start[32] = "", last_time[8] = "";
    std::sscanf(text->c_str(), "%*[^\t]\t%7[^\t]\t%31[^\t]\t%*[^\t]\t%*[^\t]\t%7[^\n]", enable, start,
                last_time);
    return guest_closing{*text, schedule_in(std::string(cut(*text, followed_max))), enable, start, last_time};
}

bool guest_files::save_index(int index) const {
    return is_saved(index_path_, save_file(index_path_, std::to_string(index)));
}

bool guest_files::remove_index() const {
    return is_saved(index_path_, remove_file(index_path_));
}

bool guest_files::save_closing(const std::string &text) const {
    return is_saved(closing_path_, save_file(closing_path_, text));
}

bool guest_files::remove_closing() const {
    return is_saved(closing_path_, remove_file(closing_path_));
}

// The closing time goes first: without it the index does nothing.
bool guest_files::remove_all() const {
    const auto old = closing();
    if (!old || !remove_closing())
        return false;
    if (remove_index())
        return true;
    if (!old->text.empty())
        save_closing(old->text);
    return false;
}

}  // namespace arvok::access
