#include "access/restrictions.h"

#include <utility>

#include "access/schedule.h"
#include "access/texts.h"
#include "base/text.h"

namespace arvok::access {
namespace {

// Whether nothing is lost with an entry that was `old`, or was not there.
bool is_spare(const restriction &entry, const restriction *old) {
    if (entry.blocks() || entry.limits_rate())
        return false;
    return !(entry.kinds & restricts_rate) || (old && old->kinds & restricts_rate && !old->limits_rate());
}

}  // namespace

bool restriction::blocks() const {
    return kinds & restricts_internet && internet != unrestricted;
}

bool restriction::limits_rate() const {
    return kinds & restricts_rate && (up_limit != 0 || down_limit != 0);
}

const restriction *restrictions::find(const host_id &id) const {
    const auto found = by_host_.find(id);
    return found == by_host_.end() ? nullptr : &entries_[place(found->second)];
}

bool restrictions::blocks(const host_id &id) const {
    const restriction *entry = find(id);
    return entry && entry->blocks();
}

restriction &restrictions::entry_of(std::string_view mac) {
    const auto [known, is_new] = by_host_.try_emplace(host_id(mac), entries_.size());
    if (is_new)
        entries_.emplace_front().mac = kept_mac(mac);
    return entries_[place(known->second)];
}

restriction &restrictions::entry_with(restriction_kind kind, std::string_view mac) {
    restriction &entry = entry_of(mac);
    entry.mac = kept_mac(mac);
    entry.kinds |= kind;
    entry.applied = 0;
    return entry;
}

void restrictions::drop(restriction_kind kind) {
    std::erase_if(entries_, [kind](const restriction &entry) { return entry.kinds == kind; });
    for (restriction &entry : entries_) {
        entry.kinds &= ~std::uint32_t{kind};
        entry.applied &= entry.kinds;
    }
    index();
}

void restrictions::make_room(std::size_t max, const restrictions &before) {
    if (entries_.size() <= max)
        return;
    std::deque<restriction> kept;
    std::size_t excess = entries_.size() - max;
    for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
        if (excess > 0 && is_spare(*entry, before.find(host_id(entry->mac))))
            excess--;
        else
            kept.push_front(std::move(*entry));
    }
    entries_ = std::move(kept);
    index();
}

void restrictions::index() {
    by_host_.clear();
    for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry)
        by_host_.emplace(host_id(entry->mac), by_host_.size());
}

void restrictions::load(std::string_view file) {
    while (!file.empty()) {
        std::string_view line = until_zero(take_until(file, '\n'));
        if (line.empty())
            continue;
        const auto number = [&line] { return number_of(std::string(take_until(line, '|'))); };
        restriction &entry = entry_of(take_until(line, '|'));
        const std::uint32_t kinds = number(), internet = number(), down_limit = number(), up_limit = number();
        entry.kinds |= kinds;
        if (kinds & restricts_internet)
            entry.internet = internet;
        if (kinds & restricts_rate) {
            entry.up_limit = up_limit;
            entry.down_limit = down_limit;
        }
    }
}

std::string restrictions::text() const {
    std::string text;
    for (const restriction &entry : entries_)
        text += entry.mac +
                format("|%u|%u|%u|%u\n", entry.kinds, entry.internet, entry.down_limit, entry.up_limit);
    return text;
}

}  // namespace arvok::access
