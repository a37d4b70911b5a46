// The calls of the app manager.
#include <array>

#include "apps.h"
#include "calls_table.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

template <auto action>
Reply with_name(World &world, const cJSON *args) {
    return action(world.apps, get_text(args, "name"));
}

}  // namespace

std::span<const Row> app_rows() {
    using Name = const std::string &;
    const Param name{Type::text, "name"};
    static const std::array rows{
        Row{&call_of("qzcap_install_app"),
            false,
            {{Type::text, "url"}},
            [](World &world, const cJSON *args) {
                return world.apps.install(get_text(args, "url"), world.failures);
            }},
        Row{&call_of("qzcap_uninstall_app"),
            true,
            {name},
            with_name<[](Apps &apps, Name app) { return apps.uninstall(app); }>},
        Row{&call_of("qzcap_run_app"),
            true,
            {name},
            with_name<[](Apps &apps, Name app) { return apps.set_state(app, "running"); }>},
        Row{&call_of("qzcap_stop_app"),
            true,
            {name},
            with_name<[](Apps &apps, Name app) { return apps.set_state(app, "stopped"); }>},
        Row{&call_of("qzcap_restore_app"),
            true,
            {name},
            with_name<[](Apps &apps, Name app) { return apps.restore(app); }>},
        Row{&call_of("qzcap_get_applist"),
            false,
            {},
            [](World &world, const cJSON *) { return world.apps.list(); }},
        Row{&call_of("qzcap_app_postmsg"),
            false,
            {name, {Type::text, "message"}},
            [](World &world, const cJSON *args) {
                return world.apps.post(get_text(args, "name"), get_text(args, "message"));
            }},
    };
    return rows;
}

}  // namespace arvok::qzcapd
