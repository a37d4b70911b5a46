#include "gateway/bus_calls.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "base/bus_message.h"
#include "base/held_signals.h"
#include "base/log.h"
#include "base/stream.h"
#include "platform/session.h"

namespace arvok::gateway {
namespace {

constexpr int call_timeout_ms = 20000;
constexpr std::size_t silent_max = 2;  // methods that a message waits for in vain

// Bytes of a list's results, so that there is room for all that a request can repeat in its reply, escaped.
constexpr std::size_t results_max = json::text_max - 8 * body_max;

json::object result_reply(const request &r) {
    json::object reply = r.reply_of("ubus_result");
    reply.number("errcode", r.errcode()).text("errmsg", r.errmsg());
    return reply;
}

}  // namespace

struct bus_calls::message {
    explicit message(const gateway::request &r)
        : document(json::parse(r.root.print())), request(document.root(), r.from_cloud, r.services) {
        const json::view data = document["data"];
        is_list = data.is_array();
        if (is_list) {
            for (const json::view element : data)
                elements.push_back(element);
            reply.open_array("data");
        } else {
            elements.push_back(document.root());
        }
    }

    const json::document document;
    gateway::request request;  ///< keeps its errors
    bool is_list;              ///< else the message is its only element
    std::vector<json::view> elements;
    std::size_t at = 0;               ///< the element whose turn it is
    method called;                    ///< by it
    std::vector<method> silent;       ///< those that have timed out
    json::object reply;               ///< the results
    json::writer::position before{};  ///< the answer of that element
    bool is_full = false;             ///< what is left is not called
};

bus_calls::bus_calls(handler done) : done_(done), call_(bind<&bus_calls::ended>(*this)) {}

bus_calls::~bus_calls() = default;

std::optional<bus_calls::result> bus_calls::begin(const request &r) {
    call_.abort();
    message_ = std::make_unique<message>(r);
    return go_on();
}

void bus_calls::abort() {
    call_.abort();
    message_.reset();
}

// The method that a request or an element of its list names; nothing after a log line.
std::optional<bus_calls::method> bus_calls::method_of(json::view element) {
    const std::optional<std::string_view> object = element["object"].text();
    if (!object) {
        log_printf("[ERROR] invalid object\n");
        return std::nullopt;
    }
    const std::optional<std::string_view> name = element["method"].text();
    if (!name) {
        log_printf("[ERROR] invalid method\n");
        return std::nullopt;
    }
    return method{std::string(*object), std::string(*name)};
}

// Goes through the elements up to one whose call is under way. Not beyond the first invalid one: what was
// called before stays called, and nobody is told.
std::optional<bus_calls::result> bus_calls::go_on() {
    message &m = *message_;
    for (; m.at < m.elements.size(); end_element()) {
        const json::view element = m.elements[m.at], arguments = element["message"];
        std::optional<method> named = is_ending() ? std::nullopt : method_of(element);
        if (named && m.is_list && !arguments.is_object()) {
            log_printf("[ERROR] invalid message\n");
            named.reset();
        }
        if (!named) {
            message_.reset();
            return result{};
        }
        m.called = std::move(*named);
        if (m.is_list)
            m.reply.open_object().text("object", m.called.object).text("method", m.called.name);
        m.before = m.reply.here();
        if (m.is_full)
            m.request.fail(platform_failed, too_long);
        else if (call(arguments))
            return std::nullopt;
    }
    return finish();
}

// Calls the method whose turn it is. False with the error recorded when nothing is under way.
bool bus_calls::call(json::view arguments) {
    message &m = *message_;
    const bool is_silent = m.silent.size() >= silent_max ||
                           std::find(m.silent.begin(), m.silent.end(), m.called) != m.silent.end();
    const std::uint32_t object = platform::object_id(m.called.object);
    bus_message sent;
    if (object == 0) {
        m.request.fail(platform_failed, "qzcap_get_objid_by_name failed: %s", m.called.object.c_str());
    } else if (!sent.add_json(arguments.is_object() ? arguments.print() : "{}")) {
        m.request.fail(platform_failed, "blobmsg_add_json_from_string failed");
    } else {
        const int status =
            is_silent ? UBUS_STATUS_TIMEOUT : call_.begin(object, m.called.name, sent.get(), call_timeout_ms);
        if (status == UBUS_STATUS_OK)
            return true;
        m.request.fail(platform_failed, "ubus_invoke failed: %s", ubus_strerror(status));
    }
    return false;
}

void bus_calls::ended(int status, platform::bus_call::answer data) {
    take(status, data.get());
    data.reset();
    end_element();
    if (std::optional<result> all = go_on())
        done_(std::move(*all));
}

void bus_calls::take(int status, blob_attr *data) {
    message &m = *message_;
    if (status == UBUS_STATUS_TIMEOUT)
        m.silent.push_back(m.called);
    if (status != UBUS_STATUS_OK)
        return m.request.fail(platform_failed, "ubus_invoke failed: %s", ubus_strerror(status));
    if (!write_message(m.reply, m.is_list ? "message" : "data", data))
        return m.request.fail(platform_failed, "blobmsg_format_json failed");
    if (!m.is_list || (!m.reply.is_too_long() && m.reply.here().size <= results_max))
        return;
    m.reply.back_to(m.before);
    m.request.fail(platform_failed, too_long);
    m.is_full = true;
}

void bus_calls::end_element() {
    if (message_->is_list)
        message_->reply.close();
    message_->at++;
}

bus_calls::result bus_calls::finish() {
    const std::unique_ptr<message> m = std::move(message_);
    const auto envelope = [&] {
        json::object begun = result_reply(m->request);
        if (!m->is_list)
            begun.text("object", m->called.object).text("method", m->called.name);
        return begun;
    };
    if (m->is_list)
        m->reply.close();
    json::object begun = envelope();
    m->reply.begin_with(begun);
    json::value reply = m->reply.take();
    if (!reply) {
        m->request.fail(platform_failed, too_long);
        reply = envelope().take();
    }
    return {true, std::move(reply)};
}

}  // namespace arvok::gateway
