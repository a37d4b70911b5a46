#include "apps.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "control_file.h"
#include "state.h"

namespace arvok::qzcapd {
namespace {

constexpr std::size_t most_installations = 8;  // at a time
constexpr std::size_t longest_url = 1024;
/// How long an app may take to answer: the platform's callers give up after 3 seconds.
constexpr int answer_timeout_ms = 2500;

Reply no_app(const std::string &name) {
    return refused("no such app: " + name);
}

std::string url_fault(const std::string &url) {
    if (url.empty()) {
        return "url: must not be empty";
    }
    if (url.size() > longest_url) {
        return "url: longer than " + std::to_string(longest_url) + " bytes";
    }
    for (const char *scheme : {"http://", "https://", "file://"}) {
        if (strncasecmp(url.c_str(), scheme, std::char_traits<char>::length(scheme)) == 0) {
            return "";
        }
    }
    return "url: must begin with http://, https:// or file://";
}

/// What the document says of an app, as a control file.
std::string control_of(const cJSON *app) {
    std::string text = std::string("Package: ") + app->string + "\n";
    const auto line = [&](const char *name, const char *value) {
        if (value != nullptr) {
            text += std::string(name) + ": " + value + "\n";
        }
    };
    line("Version", get_text(app, "version"));
    line("Architecture", "all");
    line("NeedGWVendor", get_text(app, "NeedGWVendor"));
    return text;
}

/// Whether a control file says the same as the document, as far as that says anything.
bool agrees(const std::string &control, const cJSON *app) {
    const auto same = [&](const char *name, const char *value) {
        return value == nullptr || control_field(control, name) == value;
    };
    return !control.empty() && same("Version", get_text(app, "version")) &&
           same("NeedGWVendor", get_text(app, "NeedGWVendor"));
}

json_ptr outcome_of(const Installation &installation) {
    json_ptr outcome(cJSON_CreateObject());
    put_number(outcome.get(), "result", static_cast<int>(installation.result));
    if (installation.result != InstallResult::installed) {
        put_text(outcome.get(), "failreason", installation.reason);
    }
    if (!installation.name.empty()) {
        put_text(outcome.get(), "name", installation.name);
        put_text(outcome.get(), "version", installation.version);
    }
    return outcome;
}

Reply answer_of(const std::string &name, int status, blob_attr *answer) {
    if (status == UBUS_STATUS_TIMEOUT) {
        return refused("the app does not answer: " + name);
    }
    if (status != UBUS_STATUS_OK) {
        return refused("the app " + name + " fails: " + ubus_strerror(status));
    }
    const json_ptr text = answer != nullptr ? from_blob(answer) : nullptr;
    return text ? with_text(print(text.get())) : refused("the app gave no answer: " + name);
}

}  // namespace

Apps::Apps(ubus_context *ctx, const json_ptr &state, const std::string &root, Announce announce)
    : state_(state), files_(root), announce_(std::move(announce)), messages_(ctx) {
    files_.remove_leftovers();
    follow_document();
}

Apps::~Apps() = default;

cJSON *Apps::find(const std::string &name) const {
    return get(get(state_.get(), "app"), name);
}

Reply Apps::install(const std::string &url, Failures &orders) {
    if (const std::string fault = url_fault(url); !fault.empty()) {
        return refused(fault);
    }
    if (installations_.size() >= most_installations) {
        return refused("too many installations at a time");
    }
    installations_.push_back(
        std::make_unique<Installation>(++last_id_, files_, url, orders.take("qzcap_install_app", true),
                                       [this](Installation &ended) { conclude(ended); }));
    return with_value(last_id_);
}

void Apps::conclude(Installation &installation) {
    const auto found =
        std::ranges::find_if(installations_, [&](const auto &p) { return p.get() == &installation; });
    const std::unique_ptr<Installation> owner = std::move(*found);
    installations_.erase(found);
    if (installation.failure && installation.failure->mode == Failure::Mode::timeout) {
        return;
    }
    if (installation.result == InstallResult::installed) {
        enter(installation);
    }
    json_ptr message(cJSON_CreateObject());
    put_number(message.get(), "id", installation.id);
    if (!installation.failure || installation.failure->mode != Failure::Mode::empty) {
        put(message.get(), "outcome", outcome_of(installation));
    }
    announce_(std::move(message));
}

/// The document gets the app. How it answers messages is the desk's matter and stays.
void Apps::enter(const Installation &installation) {
    if (get(state_.get(), "app") == nullptr) {
        put(state_.get(), "app", json_ptr(cJSON_CreateObject()));
    }
    cJSON *app = find(installation.name);
    if (app == nullptr) {
        put(get(state_.get(), "app"), installation.name, json_ptr(cJSON_CreateObject()));
        app = find(installation.name);
    }
    put_text(app, "version", installation.version);
    put_text(app, "state", "stopped");
    const std::string vendor = control_field(installation.control, "NeedGWVendor");
    if (vendor == "0" || vendor == "1") {
        put_text(app, "NeedGWVendor", vendor);
    } else {
        cJSON_DeleteItemFromObjectCaseSensitive(app, "NeedGWVendor");
    }
}

Reply Apps::uninstall(const std::string &name) {
    if (find(name) == nullptr) {
        return no_app(name);
    }
    files_.remove(name);
    cJSON_DeleteItemFromObjectCaseSensitive(get(state_.get(), "app"), name.c_str());
    return done();
}

Reply Apps::set_state(const std::string &name, const char *to) {
    cJSON *app = find(name);
    if (app == nullptr) {
        return no_app(name);
    }
    put_text(app, "state", to);
    return done();
}

Reply Apps::restore(const std::string &name) {
    if (find(name) == nullptr) {
        return no_app(name);
    }
    const std::string fault = files_.restore(name);
    return fault.empty() ? set_state(name, "stopped") : refused(fault);
}

Reply Apps::list() const {
    json_ptr list(cJSON_CreateArray());
    const cJSON *app = nullptr;
    cJSON_ArrayForEach(app, get(state_.get(), "app")) {
        cJSON_AddItemToArray(list.get(), project(capi::app, app, "name", app->string).release());
    }
    return with_list(std::move(list));
}

Reply Apps::post(const std::string &name, const std::string &message) {
    const cJSON *app = find(name);
    if (app == nullptr) {
        return no_app(name);
    }
    const char *state = get_text(app, "state");
    if (state == nullptr || std::string(state) != "running") {
        return refused("app is not running: " + name);
    }
    json_ptr content = parse(message, nullptr);
    if (!content) {
        return refused("message: must be JSON");
    }
    if (const std::uint32_t object = messages_.find(name); object != 0) {
        auto blob = std::make_shared<Message>();
        if (!cJSON_IsObject(content.get()) || !to_blob(content.get(), blob.get())) {
            return refused("message: must be an object for a program on the bus");
        }
        Reply reply;
        reply.later = [this, name, object, blob](const Responder &respond) {
            const auto answer = [name, respond](int status, blob_attr *msg) {
                respond(answer_of(name, status, msg));
            };
            if (const int status = messages_.send(object, blob->head(), answer_timeout_ms, answer);
                status != 0) {
                answer(status, nullptr);
            }
        };
        return reply;
    }
    if (const cJSON *answer = get(app, "answer")) {
        return with_text(print(answer));
    }
    json_ptr echo(cJSON_CreateObject());
    put_text(echo.get(), "app", name);
    put(echo.get(), "message", std::move(content));
    return with_text(print(echo.get()));
}

void Apps::follow_document() {
    for (const std::string &name : files_.names()) {
        if (find(name) == nullptr) {
            files_.remove(name);
        }
    }
    const cJSON *app = nullptr;
    cJSON_ArrayForEach(app, get(state_.get(), "app")) {
        if (agrees(files_.control(app->string), app)) {
            continue;
        }
        const std::string fault = files_.write_control(app->string, control_of(app));
        if (!fault.empty()) {
            std::fprintf(stderr, "qzcapd: no control files for the apps: %s\n", fault.c_str());
            return;
        }
    }
}

}  // namespace arvok::qzcapd
