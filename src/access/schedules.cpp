#include "access/schedules.h"

#include <cstdlib>
#include <utility>

#include "access/texts.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr std::size_t id_max = 15;
constexpr std::size_t line_max = 17 + 1 + 3 * (time_of_day::max + 1) + 2 + 1 + id_max + 1 + id_max;

schedule_rule rule_of(const schedule_line &line) {
    return {static_cast<std::uint8_t>(std::atoi(line.enable.c_str())),
            static_cast<std::uint8_t>(std::atoi(line.mode.c_str())), time_of_day(line.start),
            time_of_day(line.end)};
}

// Gives back what it has grown by beyond what it holds; without exceptions shrink_to_fit() does nothing.
void trim(host_schedule &host) {
    std::vector(host.rules).swap(host.rules);
    std::string(host.lines).swap(host.lines);
}

}  // namespace

schedule_line parse_schedule_line(std::string_view line) {
    line = until_zero(line);
    const auto field = [&line](char end, std::size_t max) {
        return std::string(whole_characters(cut(take_until(line, end), max)));
    };
    schedule_line parsed;
    parsed.mac = kept_mac(take_until(line, '|'));
    const struct {
        std::string schedule_line::*text;
        std::size_t max;
    } needed[] = {{&schedule_line::mode, 7},
                  {&schedule_line::start, time_of_day::max},
                  {&schedule_line::end, time_of_day::max},
                  {&schedule_line::enable, 2}};
    for (const auto &[text, max] : needed)
        if ((parsed.*text = field('|', max)).empty())
            return parsed;
    parsed.continue_id = field('|', id_max);
    parsed.group_id = field('\n', id_max);
    return parsed;
}

std::string text_of(const schedule_line &line) {
    std::string text;
    for (const std::string *field :
         {&line.mac, &line.mode, &line.start, &line.end, &line.enable, &line.continue_id})
        text.append(*field).append("|");
    return text + line.group_id;
}

const host_schedule *schedules::find(const host_id &id) const {
    const auto found = by_host_.find(id);
    return found == by_host_.end() ? nullptr : &*found->second;
}

void schedules::load(std::string_view file) {
    while (!file.empty()) {
        const std::string_view line = take_until(file, '\n');
        if (line.empty())
            continue;
        const schedule_line parsed = parse_schedule_line(line);
        const auto [entry, is_new] = by_host_.try_emplace(host_id(parsed.mac), hosts_.begin());
        if (is_new)
            entry->second = hosts_.emplace(hosts_.begin(), host_schedule{parsed.mac});
        host_schedule &host = *entry->second;
        host.rules.push_back(rule_of(parsed));
        host.lines.append(line.size() <= line_max ? line : text_of(parsed)).append("\n");
        size_++;
    }
    for (host_schedule &host : hosts_)
        trim(host);
}

std::string schedules::text_with(const host_schedule &fresh) const {
    const host_schedule *old = find(host_id(fresh.mac));
    std::size_t size = fresh.lines.size();
    for (const host_schedule &host : hosts_)
        size += host.lines.size();
    std::string text;
    text.reserve(size);
    for (auto host = hosts_.rbegin(); host != hosts_.rend(); ++host)
        if (&*host != old)
            text += host->lines;
    text += fresh.lines;
    return text;
}

void schedules::replace(host_schedule fresh) {
    const host_id id(fresh.mac);
    if (const auto old = by_host_.find(id); old != by_host_.end()) {
        size_ -= old->second->rules.size();
        hosts_.erase(old->second);
        by_host_.erase(old);
    }
    if (fresh.rules.empty())
        return;
    size_ += fresh.rules.size();
    trim(fresh);
    hosts_.push_front(std::move(fresh));
    by_host_.emplace(id, hosts_.begin());
}

void schedules::set_actions(const std::vector<internet_access> &actions) {
    auto host = hosts_.begin();
    for (const internet_access action : actions)
        host++->action = action;
}

}  // namespace arvok::access
