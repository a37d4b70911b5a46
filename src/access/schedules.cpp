#include "access/schedules.h"

#include <cstdlib>
#include <utility>

#include "access/texts.h"
#include "base/text.h"

namespace arvok::access {
namespace {

schedule_rule rule_of(const schedule_line &line) {
    return {static_cast<std::uint8_t>(std::atoi(line.enable.c_str())),
            static_cast<std::uint8_t>(std::atoi(line.mode.c_str())), line.start, line.end};
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
                  {&schedule_line::start, 7},
                  {&schedule_line::end, 7},
                  {&schedule_line::enable, 2}};
    for (const auto &[text, max] : needed)
        if ((parsed.*text = field('|', max)).empty())
            return parsed;
    parsed.continue_id = field('|', 15);
    parsed.group_id = field('\n', 15);
    return parsed;
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
        host.rules.push_front(rule_of(parsed));
        host.lines.append(line).append("\n");
        size_++;
    }
}

std::string schedules::text_with(const host_schedule &fresh) const {
    const host_schedule *old = find(host_id(fresh.mac));
    std::string text;
    for (auto host = hosts_.rbegin(); host != hosts_.rend(); ++host)
        if (&*host != old)
            text += host->lines;
    return text + fresh.lines;
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
    hosts_.push_front(std::move(fresh));
    by_host_.emplace(id, hosts_.begin());
}

void schedules::set_actions(const std::vector<internet_access> &actions) {
    auto host = hosts_.begin();
    for (const internet_access action : actions)
        host++->action = action;
}

}  // namespace arvok::access
