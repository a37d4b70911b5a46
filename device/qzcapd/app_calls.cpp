// The apps that the platform hosts, as far as their manager shows them.
#include <array>

#include "calls_table.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

using capi::call_of;
using Type = Param::Type;

/// The name and version in a package's file name, "<name>_<version>_<architecture>.<suffix>".
bool parse_package(const std::string &url, std::string *name, std::string *version) {
    const std::string file = url.substr(url.rfind('/') + 1);
    const std::size_t first = file.find('_');
    const std::size_t second = first == std::string::npos ? first : file.find('_', first + 1);
    if (first == 0 || second == std::string::npos || second == first + 1) {
        return false;
    }
    *name = file.substr(0, first);
    *version = file.substr(first + 1, second - first - 1);
    return true;
}

Reply install(World &world, const cJSON *args) {
    std::string name;
    std::string version;
    if (!parse_package(get_text(args, "url"), &name, &version)) {
        return refused("url: must end in NAME_VERSION_ARCHITECTURE.SUFFIX");
    }
    if (get(world.state, "app") == nullptr) {
        put(world.state, "app", json_ptr(cJSON_CreateObject()));
    }
    json_ptr app(cJSON_CreateObject());
    put_text(app.get(), "version", version);
    put_text(app.get(), "state", "stopped");
    put(get(world.state, "app"), name, std::move(app));
    Reply reply = done();
    put_text(reply.body.get(), "name", name);
    put_text(reply.body.get(), "version", version);
    return reply;
}

cJSON *find_app(World &world, const cJSON *args) {
    return get(get(world.state, "app"), get_text(args, "name"));
}

Reply no_app(const cJSON *args) {
    return refused(std::string("no such app: ") + get_text(args, "name"));
}

Reply uninstall(World &world, const cJSON *args) {
    if (find_app(world, args) == nullptr) {
        return no_app(args);
    }
    cJSON_DeleteItemFromObjectCaseSensitive(get(world.state, "app"), get_text(args, "name"));
    return done();
}

Reply set_app_state(World &world, const cJSON *args, const char *state) {
    cJSON *app = find_app(world, args);
    if (app == nullptr) {
        return no_app(args);
    }
    put_text(app, "state", state);
    return done();
}

Reply app_list(World &world, const cJSON *) {
    json_ptr list(cJSON_CreateArray());
    const cJSON *app = nullptr;
    cJSON_ArrayForEach(app, get(world.state, "app")) {
        cJSON_AddItemToArray(list.get(), project(capi::app, app, "name", app->string).release());
    }
    return with_list(std::move(list));
}

/// A running app answers every message with the `answer` that the document gives it.
Reply postmsg(World &world, const cJSON *args) {
    const cJSON *app = find_app(world, args);
    if (app == nullptr) {
        return no_app(args);
    }
    const char *state = get_text(app, "state");
    if (state == nullptr || std::string(state) != "running") {
        return refused(std::string("app is not running: ") + get_text(args, "name"));
    }
    if (!parse(get_text(args, "message"), nullptr)) {
        return refused("message: must be JSON");
    }
    const cJSON *answer = get(app, "answer");
    return answer != nullptr ? with_text(print(answer)) : refused("the app gave no answer");
}

}  // namespace

std::span<const Row> app_rows() {
    const Param name{Type::text, "name"};
    static const std::array rows{
        Row{&call_of("qzcap_install_app"), true, {{Type::text, "url"}}, install},
        Row{&call_of("qzcap_uninstall_app"), true, {name}, uninstall},
        Row{&call_of("qzcap_run_app"),
            true,
            {name},
            [](World &world, const cJSON *args) { return set_app_state(world, args, "running"); }},
        Row{&call_of("qzcap_stop_app"),
            true,
            {name},
            [](World &world, const cJSON *args) { return set_app_state(world, args, "stopped"); }},
        Row{&call_of("qzcap_restore_app"),
            true,
            {name},
            [](World &world, const cJSON *args) { return set_app_state(world, args, "stopped"); }},
        Row{&call_of("qzcap_get_applist"), false, {}, app_list},
        Row{&call_of("qzcap_app_postmsg"), false, {name, {Type::text, "message"}}, postmsg},
    };
    return rows;
}

}  // namespace arvok::qzcapd
