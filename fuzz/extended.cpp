// Commands of other apps, and the rule files that some of them keep.

#include "arvok/app_messages.h"
#include "context.h"
#include "extcc/rules.h"
#include "machine.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

constexpr std::int64_t next_check_max_ms = 86401 * 1000LL;

class App : public Stage {
  public:
    App() { extcc_run(); }

  protected:
    void message(std::string_view line) override { post(blob_of_json(line)); }
    void raw(std::string_view bytes) override { post(blob_of_bytes(bytes)); }

    void check() override {
        uloop_timeout &timer = g_ctx.extcc.lanhost_timer;
        require(timer.pending && uloop_timeout_remaining(&timer) <= next_check_max_ms,
                "looks at the schedules too late");
    }

  private:
    static void post(blob_ptr command) {
        ubus_request_data request{};
        arvok_postmsg(qzcap_get_ubus_context(), nullptr, &request, "postmsg", command.get());
    }
};

}  // namespace

void app(Input input) {
    App().play(input);
}

void rules(Input input) {
    const std::string_view script = input.until('\f');
    for (const char *name : {schedule_file, parent_file, guest_index_file})
        put_file(name, input.until('\f'));
    put_file(guest_timer_file, input.rest());
    App stage;
    stage.play({reinterpret_cast<const std::uint8_t *>(script.data()), script.size()});
    static constexpr std::string_view all_of_it =
        "!0\n!1\n!2\n{\"CmdType\":\"EXTCC_DUMP\"}\n{\"CmdType\":\"GET_LANHOST_TIMER\"}\n"
        "{\"CmdType\":\"GET_LANHOST_INFO\"}\n{\"CmdType\":\"GET_GUEST_WIFI\"}\n";
    stage.play({reinterpret_cast<const std::uint8_t *>(all_of_it.data()), all_of_it.size()});
    load_rules();
}

}  // namespace arvok::fuzz
