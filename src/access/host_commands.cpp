#include "access/host_commands.h"

#include <optional>
#include <string>
#include <utility>

#include "access/outcome.h"
#include "access/texts.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr unsigned long limit_max = 2147483648;
constexpr std::string_view no_continue_id = "nocid";
constexpr char mac_missing[] = "MAC not found";

// The file's and the platform's unsigned numbers are told as signed ones.
std::string signed_text(std::uint32_t value) {
    return std::to_string(static_cast<std::int32_t>(value));
}

void add_signed(bus_message &reply, const char *name, std::uint32_t value) {
    reply.number(name, static_cast<std::int32_t>(value));
}

void add_exec(bus_message &reply, const restriction &entry) {
    reply.text("Exec", entry.applied == entry.kinds ? "True" : "False");
}

// Adds one rule of a request to a schedule. What is wrong with it, or nothing.
std::optional<std::string_view> add_rule(host_schedule &to, json::view rule) {
    const auto start = rule["StartTime"].text(), end = rule["EndTime"].text();
    if (!is_time_of_day(start.value_or("")) || !is_time_of_day(end.value_or("")))
        return "invalid StartTime/EndTime";
    const auto mode = number_in(rule["Mode"].text(), 0, 7);
    if (!mode)
        return "invalid Mode";
    const auto enable = number_in(rule["Enable"].text(), 0, 1);
    if (!enable)
        return "invalid Enable";
    const std::string_view continue_id = rule["ContinueID"].text().value_or("");
    // Numbers as numbers: a text like "+01" is one, but its field in the file has no room for it.
    std::string line = format("%s|%u|", to.mac.c_str(), *mode);
    line.append(*start).append("|").append(*end).append(*enable ? "|1|" : "|0|");
    line.append(continue_id.empty() ? no_continue_id : continue_id).append("|");
    line.append(rule["GroupID"].text().value_or(""));
    // Only what is told again is kept: there are thousands.
    to.lines += text_of(parse_schedule_line(one_line(std::move(line)))) + "\n";
    to.rules.push_back({static_cast<std::uint8_t>(*enable), static_cast<std::uint8_t>(*mode), *start, *end});
    return std::nullopt;
}

// Adds the rules up to the first that is wrong. What is wrong with it, or nothing.
std::optional<std::string_view> add_rules(host_schedule &to, json::view rules) {
    for (const json::view rule : rules)
        if (const auto fault = add_rule(to, rule))
            return fault;
    return std::nullopt;
}

// What is wrong with an element of a list of restrictions.
struct entry_fault {
    const char *reason, *status;
};

void add_refusal(bus_message &reply, stored why) {
    add_outcome(reply, why == stored::not_saved ? save_failed : "too many rules", "-1");
}

}  // namespace

// --- schedules ---

void host_commands::set_schedule(json::view message, bus_message &reply) {
    const auto mac = message["MAC"].text();
    if (!mac)
        return add_outcome(reply, mac_missing, "-202");
    if (store_.rules().limits.blocks(host_id(*mac)))
        return add_outcome(reply, "MAC already in internet rules", "-1000");
    const json::view info = message["Info"];
    if (!info.is_array())
        return add_outcome(reply, info_not_array, "-201");

    host_schedule fresh{kept_mac(*mac)};
    const auto fault = add_rules(fresh, info);
    if (const stored outcome = store_.set_schedule(std::move(fresh), !info.first()); outcome != stored::done)
        return add_refusal(reply, outcome);
    // Also for what was stored before a fault: its boundaries are nobody else's to watch.
    enforcer_.enforce_soon();
    if (fault)
        return add_outcome(reply, *fault, "-1");
    add_success(reply);
}

void host_commands::get_schedule(json::view message, bus_message &reply) {
    const auto mac = message["MAC"].text();
    if (!mac)
        return add_outcome(reply, mac_missing, "-202");
    {
        const bus_message::array info(reply, "Info");
        const host_schedule *host = store_.rules().times.find(host_id(*mac));
        for (auto lines = host ? std::string_view(host->lines) : std::string_view(); !lines.empty();) {
            const schedule_line line = parse_schedule_line(take_until(lines, '\n'));
            const bus_message::table table(reply);
            reply.text("ContinueID", line.continue_id == no_continue_id ? "" : line.continue_id);
            reply.text("Mode", line.mode);
            reply.text("StartTime", line.start);
            reply.text("EndTime", line.end);
            reply.text("Enable", line.enable);
            reply.text("GroupID", line.group_id);
        }
    }
    add_success(reply);
}

// --- blocking and rate limits ---

// `set` puts one element into the draft and says what is wrong with it. The first fault ends the list; what
// stands before it is stored and applied like a list without a fault.
template <typename Set>
void host_commands::set_restrictions(json::view info, restriction_kind kind, bus_message &reply, Set set) {
    if (!info.is_array())
        return add_outcome(reply, info_not_array, "-201");
    draft made{store_.rules().limits, store_.rules().to_free, !info.first()};
    if (made.changed)
        made.limits.drop(kind);
    std::optional<entry_fault> fault;
    for (auto host = info.begin(); !fault && host != info.end(); ++host)
        fault = set(made, *host);
    if (made.changed) {
        const stored outcome = store_.set_restrictions(std::move(made.limits), std::move(made.to_free));
        if (outcome != stored::done)
            return add_refusal(reply, outcome);
        enforcer_.enforce_all_soon();
    }
    if (fault)
        return add_outcome(reply, fault->reason, fault->status);
    if (!made.changed)
        return add_outcome(reply, "MAC already in timer rules", "-1000");
    add_success(reply);
}

void host_commands::set_internet(json::view message, bus_message &reply) {
    const schedules &times = store_.rules().times;
    set_restrictions(message["Info"], restricts_internet, reply,
                     [&times](draft &made, json::view host) -> std::optional<entry_fault> {
                         const auto mac = host["MAC"].text();
                         if (!mac)
                             return entry_fault{mac_missing, "-202"};
                         const host_id id(*mac);
                         if (times.find(id))
                             return std::nullopt;
                         const auto access = number_in(host["InternetAccess"].text(), 0, 2);
                         if (!access)
                             return entry_fault{"invalid InternetAccess", "-1"};
                         made.limits.entry_with(restricts_internet, *mac).internet = *access;
                         if (*access == unrestricted)
                             made.to_free.add(id);
                         else
                             made.to_free.remove(id);
                         made.changed = true;
                         return std::nullopt;
                     });
}

void host_commands::get_internet(json::view, bus_message &reply) {
    {
        const bus_message::array info(reply, "Info");
        for (const restriction &entry : store_.rules().limits.entries()) {
            if (!entry.blocks())
                continue;
            const bus_message::table table(reply);
            reply.text("MAC", entry.mac);
            reply.text("InternetAccess", signed_text(entry.internet));
            add_exec(reply, entry);
        }
    }
    add_success(reply);
}

void host_commands::set_bandwidth(json::view message, bus_message &reply) {
    set_restrictions(message["Info"], restricts_rate, reply,
                     [](draft &made, json::view host) -> std::optional<entry_fault> {
                         const auto mac = host["MAC"].text();
                         if (!mac)
                             return entry_fault{mac_missing, "-202"};
                         const auto up = number_in(host["MaxUSBandwidth"].text(), 0, limit_max);
                         if (!up)
                             return entry_fault{"invalid US", "-1"};
                         const auto down = number_in(host["MaxDSBandwidth"].text(), 0, limit_max);
                         if (!down)
                             return entry_fault{"invalid DS", "-1"};
                         restriction &entry = made.limits.entry_with(restricts_rate, *mac);
                         entry.up_limit = *up;
                         entry.down_limit = *down;
                         made.changed = true;
                         return std::nullopt;
                     });
}

void host_commands::get_bandwidth(json::view, bus_message &reply) {
    {
        const bus_message::array info(reply, "Info");
        for (const restriction &entry : store_.rules().limits.entries()) {
            if (!entry.limits_rate())
                continue;
            const bus_message::table table(reply);
            reply.text("MAC", entry.mac);
            reply.text("MaxUSBandwidth", signed_text(entry.up_limit));
            reply.text("MaxDSBandwidth", signed_text(entry.down_limit));
            add_exec(reply, entry);
        }
    }
    add_success(reply);
}

// --- EXTCC_DUMP ---

void host_commands::add_times(bus_message &reply) {
    const std::tm now = china_time(clock_());
    reply.text("Time", format("%04d-%02d-%02d %02d:%02d:%02d", now.tm_year + 1900, now.tm_mon + 1,
                              now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec));
    const int hosts_s = enforcer_.until_next() / 1000;
    reply.text("LANHostNextCheck",
               format("%ds (%dh%dm%ds)", hosts_s, hosts_s / 3600, hosts_s % 3600 / 60, hosts_s % 60));
    const int guest_s = guest_.until_change() / 1000;
    if (guest_s > 0)
        reply.text("GuestNextCheck", format("%ds (~%dh%dm)", guest_s, guest_s / 3600, guest_s % 3600 / 60));
}

namespace {

void add_schedule(bus_message &reply, const host_schedule &host) {
    const bus_message::table table(reply);
    reply.text("mac", host.mac);
    reply.number("num", static_cast<std::int32_t>(host.rules.size()));
    reply.number("internet", host.action);
    const bus_message::array rules(reply, "rules");
    for (auto rule = host.rules.rbegin(); rule != host.rules.rend(); ++rule) {
        const bus_message::table rule_table(reply);
        reply.text("start", rule->start.c_str());
        reply.text("end", rule->end.c_str());
        reply.number("enable", rule->enable);
        reply.number("weekday", rule->mode);
    }
}

void add_restriction(bus_message &reply, const restriction &entry) {
    const bus_message::table table(reply);
    reply.text("mac", entry.mac);
    if (entry.kinds & restricts_rate) {
        add_signed(reply, "dsbandwidth", entry.down_limit);
        add_signed(reply, "usbandwidth", entry.up_limit);
    }
    if (entry.kinds & restricts_internet)
        add_signed(reply, "internetaccess", entry.internet);
    add_exec(reply, entry);
}

void add_schedules(bus_message &reply, const schedules &all) {
    const bus_message::array list(reply, "TimeRules");
    for (const host_schedule &host : all.hosts())
        add_schedule(reply, host);
}

void add_restrictions(bus_message &reply, const restrictions &all) {
    const bus_message::array list(reply, "ParentRules");
    for (const restriction &entry : all.entries())
        add_restriction(reply, entry);
}

}  // namespace

void host_commands::dump(json::view, bus_message &reply) {
    add_times(reply);
    add_schedules(reply, store_.rules().times);
    add_restrictions(reply, store_.rules().limits);
}

}  // namespace arvok::access
