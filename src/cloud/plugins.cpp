#include "cloud/plugins.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "base/bus_message.h"
#include "base/crypto.h"
#include "base/log.h"
#include "base/product.h"
#include "base/random.h"
#include "base/text.h"
#include "cloud/plugin_id.h"

namespace arvok::cloud {
namespace {

constexpr std::size_t short_text_max = 15;  // bytes kept of an ordered version and upgrade
constexpr std::size_t url_max = 255;
constexpr std::size_t reason_max = 4095;   // of a failure, in the app manager's words: results are kept
constexpr std::size_t kept_max = 16;       // results; more apps than a device has room for
constexpr std::size_t under_way_max = 16;  // installations: there are app managers that never end one
constexpr int tellings_max = 2;            // of a result: there are platforms that acknowledge none

using app_list = platform::record_list<qzcap_app, &qzcap_free_applist>;

// By app_action.
constexpr int (*actions[])(ubus_context *, const char *, char **) = {
    qzcap_uninstall_app,
    qzcap_stop_app,
    qzcap_run_app,
    qzcap_restore_app,
};
static_assert(std::size(actions) == static_cast<unsigned>(app_action::restore) + 1);

// Does it with the app that the request names.
outcome carry_out(json::view request, app_action action, std::string_view vendor) {
    outcome result;
    const auto id = request["Plugin_Name"].text(), version = request["Version"].text();
    if (!id || !version) {
        result.fail("json format invalid");
        return result;
    }
    const std::optional<std::string> name = find_plugin(*id, *version, vendor, result);
    if (!name)
        return result;
    const auto number = static_cast<unsigned>(action);
    platform::reason why;
    if (platform::call(actions[number], qzcap_get_ubus_context(), name->c_str(), why) == 0)
        result.code = 0;
    else
        result.fail(format("qzacp app action %u failed: %s", number, why.c_str()));
    return result;
}

// What was installed should be what was ordered; it is not undone when it is not.
void compare(json::view told, std::string_view app_name, std::string_view version) {
    const auto name = told["name"].text(), told_version = told["version"].text();
    if (name != app_name)
        log_printf("[WARNING] plugin name mismatch, %s:%s\n", name.value_or("").data(),
                   std::string(app_name).c_str());
    if (told_version != version)
        log_printf("[WARNING] plugin version mismatch, %s:%s\n", told_version.value_or("").data(),
                   std::string(version).c_str());
}

}  // namespace

// One that the platform library has under way; its callback owns it.
struct plugins::installation {
    plugins *owner;  // null when that has gone
    std::string plugin_id, app_name, version, upgrade_id;
    bool run;  // afterwards
};

plugins::~plugins() {
    for (installation *one : under_way_)
        one->owner = nullptr;
}

void plugins::install(json::view request) {
    outcome result;
    const auto id = request["Plugin_Name"].text(), version = request["Version"].text(),
               url = request["Download_url"].text(), upgrade_id = request["upgrade_ID"].text(),
               run = request["NeedRun"].text();
    const bool is_whole = id && version && url && upgrade_id && run && request["Plugin_size"].is_text() &&
                          request["OS"].is_text();
    std::optional<std::string> app_name;
    if (!is_whole) {
        result.fail("json format invalid");
    } else if (app_name = app_of_plugin(*id, cache_.vendor()); !app_name) {
        result.fail("invalid Plugin_Name");
    } else if (under_way_.size() >= under_way_max) {
        result.fail("too many");
    } else {
        auto ordered = std::make_unique<installation>(installation{
            this, std::string(*id), std::move(*app_name), std::string(cut(*version, short_text_max)),
            std::string(cut(*upgrade_id, short_text_max)), *run == "1"});
        const std::string from(cut(*url, url_max));
        if (platform::call(qzcap_install_app, qzcap_get_ubus_context(), from.c_str(), installed,
                           ordered.get()) < 0) {
            result.fail("qzcap_install_app failed");
        } else {
            under_way_.push_back(ordered.release());  // installed's from here on
            result.code = 0;
        }
    }
    link_.write(reply_to(request, result));
}

// Without a message the platform library never got an answer, or its session ends: nobody is told then.
void plugins::installed(ubus_request *request, blob_attr *message) {
    const std::unique_ptr<installation> ended(request ? static_cast<installation *>(request->priv) : nullptr);
    log_printf("[INFO] plugin_install_cb (%d): \n", __LINE__);
    if (ended && ended->owner)
        std::erase(ended->owner->under_way_, ended.get());
    if (!request || !message) {
        log_printf("[WARNING] plugin_install_cb: req or msg is null\n");
        return;
    }
    if (!ended) {
        log_printf("[WARNING] plugin_install_cb: plugin_info is null\n");
        return;
    }
    if (!ended->owner)
        return;
    const std::string text = json_of(message).value_or("");
    log_printf("[DEBUG] plugin_install_cb: %s\n", text.c_str());
    if (const json::document told = json::parse(text)) {
        ended->owner->report(*ended, told.root());
        compare(told.root(), ended->app_name, ended->version);
    } else {
        log_printf("[WARNING] plugin_install_cb: msg is not json format\n");
    }
    if (!ended->run)
        return;
    platform::reason why;
    if (platform::call(qzcap_run_app, qzcap_get_ubus_context(), ended->app_name.c_str(), why) != 0)
        log_printf("[WARNING] plugin_install_cb: qzcap_run_app failed: %s\n", why.c_str());
}

json::object plugins::notification(const char *method, const std::string &id) const {
    json::object begun = link_.message(method);
    begun.text("ID", id).text("Time", time_digits(clock_()));
    return begun;
}

void plugins::report(const installation &ended, json::view told) {
    const int result = told["result"].integer().value_or(0);
    std::string id = random_uuid();
    json::object message = notification("InstallNotification", id);
    message.text("Plugin_Name", ended.plugin_id)
        .text("Version", ended.version)
        .text("upgrade_ID", ended.upgrade_id)
        .number("Result", result == 0 ? 0 : -1)
        .number("errcode", result);
    if (result != 0)
        message.text("FailReason", cut(told["failreason"].text().value_or(""), reason_max));
    kept_.push_back({std::move(id), message.take()});
    if (kept_.size() > kept_max)
        kept_.pop_front();
    if (link_.at() == stage::connected)
        tell_kept();
}

void plugins::connected() {
    std::erase_if(kept_, [](const ending &one) { return one.told >= tellings_max; });
    for (ending &one : kept_)
        one.told_here = false;
    tell_kept();
}

void plugins::tell_kept() {
    const auto is_untold = [](const ending &one) { return !one.told_here; };
    if (!queued_ && std::any_of(kept_.begin(), kept_.end(), is_untold))
        queued_ = queue_.post([this] { write_kept(); });
}

void plugins::write_kept() {
    queued_ = false;
    for (ending &one : kept_) {
        if (one.told_here)
            continue;
        if (!link_.can_tell(one.message.text().size()))
            return;
        link_.tell_now(one.message);
        one.told_here = true;
        one.told++;
    }
}

void plugins::acknowledged(json::view message) {
    const auto id = message["ID"].text();
    const auto known = std::find_if(kept_.begin(), kept_.end(), [&](const ending &one) {
        return one.told_here && (!id || one.id == *id);
    });
    if (known != kept_.end())
        kept_.erase(known);
}

// It may be long: no more of it is kept than one copy and what is made of it.
void plugins::notify(std::string message) {
    if (!link_.expects(message.empty() ? json::text_max + 1 : message.size() / 3 * 4))
        return;
    json::object told = notification("PluginNotification", random_uuid());
    told.text("Plugin_Name", self_plugin_name)
        .text("Version", product_version)
        .add("Message", json::base64_text(message));
    std::string().swap(message);
    link_.tell(told.take());
}

void plugins::act(json::view request, app_action action) {
    link_.write(reply_to(request, carry_out(request, action, cache_.vendor())));
}

void plugins::list(json::view request) {
    outcome result;
    const auto apps = platform::fetch_list<app_list>(qzcap_get_applist, qzcap_get_ubus_context());
    if (!apps) {
        result.fail("qzcap_get_applist failed");
        return link_.write(reply_to(request, result));
    }
    json::array listed;
    for (const qzcap_app *app : *apps)
        listed.add(json::object()
                       .text("Plugin_Name", plugin_of_app(view_of(app->name), cache_.vendor()))
                       .text("Version", app->version)
                       .number("Run", view_of(app->state) == "running")
                       .take());
    result.code = 0;
    link_.write(reply_to(request, result, "Plugin", listed.take()));
}

}  // namespace arvok::cloud
