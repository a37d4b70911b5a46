#include "access/access.h"

#include "base/table.h"

namespace arvok::access {
namespace {

template <auto Part, auto Method>
void call(rules &on, json::view message, bus_message &reply) {
    (on.*Part.*Method)(message, reply);
}

}  // namespace

struct rules::command_row {
    const char *name;
    void (*handler)(rules &on, json::view message, bus_message &reply);
};

constexpr rules::command_row rules::commands[] = {
    {"GET_LANHOST_INFO", call<&rules::hosts_, &host_commands::get_hosts>},
    {"SET_LANHOST_TIMER", call<&rules::hosts_, &host_commands::set_schedule>},
    {"GET_LANHOST_TIMER", call<&rules::hosts_, &host_commands::get_schedule>},
    {"SET_LANHOST_INTERNET", call<&rules::hosts_, &host_commands::set_internet>},
    {"GET_LANHOST_INTERNET", call<&rules::hosts_, &host_commands::get_internet>},
    {"SET_LANHOST_BANDWIDTH", call<&rules::hosts_, &host_commands::set_bandwidth>},
    {"GET_LANHOST_BANDWIDTH", call<&rules::hosts_, &host_commands::get_bandwidth>},
    {"SET_GUEST_WIFI", call<&rules::guest_, &guest_network::set>},
    {"GET_GUEST_WIFI", call<&rules::guest_, &guest_network::get>},
    {"DELETE_GUEST_WIFI", call<&rules::guest_, &guest_network::remove>},
    {"SET_GUEST_WIFI_CLOSE_TIMER", call<&rules::guest_, &guest_network::set_closing>},
    {"EXTCC_DUMP", call<&rules::hosts_, &host_commands::dump>},
};

rules::rules(wall_clock clock, const std::string &folder)
    : store_(folder),
      enforcer_(store_, clock),
      guest_(folder, clock),
      hosts_(store_, enforcer_, guest_, clock),
      clock_set_(bind<&rules::look_at_clock>(*this)) {}

void rules::start() {
    clock_set_.start();
    guest_.follow_times();
    enforcer_.enforce();
}

void rules::look_at_clock() {
    guest_.clock_was_set();
    enforcer_.enforce();
}

bool rules::run(std::string_view command, json::view message, bus_message &reply) {
    const command_row *row = find_row(commands, command);
    // A command is about the rules as they are: what the disk would not tell is asked for once more.
    if (row && !store_.is_loaded() && store_.load())
        enforcer_.enforce_soon();
    if (row)
        row->handler(*this, message, reply);
    return row;
}

}  // namespace arvok::access
