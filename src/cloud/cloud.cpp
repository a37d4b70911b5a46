#include "cloud/cloud.h"

#include "base/text.h"
#include "cloud/dispatch.h"

namespace arvok::cloud {

client::client(task_queue &queue, platform::cache &cache, wall_clock clock, const options &given,
               const agent_services &agent)
    : settings_(load_settings(given.bss)),
      connection_(queue, cache,
                  {bind<&client::receive>(*this), bind<&enrolment::send_heartbeat>(enrolment_),
                   bind<&connector::after>(connector_), bind<&app_messages::abandon>(app_messages_)}),
      connector_(queue, connection_, settings_, given.debug, bind<&enrolment::begin>(enrolment_)),
      enrolment_(connection_, connector_, settings_, cache),
      plugins_(queue, connection_, cache, clock),
      app_messages_(connection_, cache, agent) {}

void client::receive(json::view message) {
    const platform::message_scope scope(&connection_, bind<&connection::has_input>(connection_));
    const bool connected = connection_.at() == stage::connected;
    dispatch({connection_, enrolment_, plugins_, app_messages_}, message);
    if (connection_.at() != stage::connected)
        return;
    if (connected)
        plugins_.tell_kept();
    else
        plugins_.connected();
}

void client::wan_up() {
    if (!connection_.is_open())
        connector_.reconnect(reconnect_now_ms);
}

bool client::wan_down() {
    const bool connected = connection_.is_open();
    if (connected)
        connector_.rest();
    return connected;
}

std::string client::server_text() const {
    const server &named = connector_.used();
    return named.empty() ? "" : named.text();
}

std::string client::status_words() {
    const int seconds = connector_.remaining() / 1000;
    switch (connection_.at()) {
        case stage::bootstrap:
            if (connector_.is_waiting())
                return format("未获取到能力平台地址，%s，等待%d秒后连接", connector_.trouble().c_str(),
                              seconds);
            return connector_.is_resolving() ? "平台域名解析中" : "获取能力平台地址中";
        case stage::challenge:
            if (connector_.is_waiting())
                return format(
                    settings_.is_activated() ? "已激活，%s，等待%d秒后连接" : "未激活，%s，等待%d秒后连接",
                    connector_.trouble().c_str(), seconds);
            return connector_.is_resolving() ? "平台域名解析中" : "获取挑战码中";
        case stage::activating:
            return "激活中";
        case stage::connecting:
            return "连接中";
        case stage::connected:
            return "心跳保活中";
    }
    return {};
}

}  // namespace arvok::cloud
