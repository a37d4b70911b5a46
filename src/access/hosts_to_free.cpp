#include "access/hosts_to_free.h"

#include "access/texts.h"

namespace arvok::access {

hosts_to_free::hosts_to_free(const std::vector<host_id> &ids) {
    for (const host_id &id : ids)
        add(id);
}

bool hosts_to_free::operator==(const hosts_to_free &other) const {
    if (size() != other.size())
        return false;
    for (const auto &[id, age] : ages_)
        if (!other.contains(id))
            return false;
    return true;
}

void hosts_to_free::add(const host_id &id) {
    const std::uint64_t age = by_age_.empty() ? 0 : by_age_.rbegin()->first + 1;
    if (id.text().empty() || !ages_.try_emplace(id, age).second)
        return;
    by_age_.emplace(age, id);
    if (size() > max)
        remove(host_id(by_age_.begin()->second));
}

void hosts_to_free::add(const hosts_to_free &others) {
    for (const auto &[age, id] : others.by_age_)
        add(id);
}

void hosts_to_free::remove(const host_id &id) {
    if (const auto found = ages_.find(id); found != ages_.end()) {
        by_age_.erase(found->second);
        ages_.erase(found);
    }
}

void hosts_to_free::load(std::string_view file) {
    while (!file.empty())
        add(host_id(take_until(file, '\n')));
}

std::string hosts_to_free::text() const {
    std::string text;
    for (const auto &[age, id] : by_age_)
        text += id.text() + "\n";
    return text;
}

}  // namespace arvok::access
