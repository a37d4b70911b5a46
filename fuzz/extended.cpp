// Commands of other apps, and the rule files that some of them keep.

#include <algorithm>

#include "access/access.h"
#include "targets.h"

namespace arvok::fuzz {
namespace {

constexpr std::int64_t next_check_max_ms = 86401 * 1000LL;

class App : public Stage {
  public:
    App() : Stage({}) {}

  protected:
    void message(std::string_view line) override { command(blob_of_json(line)); }
    void raw(std::string_view bytes) override { command(blob_of_bytes(bytes)); }

    void check() override {
        const auto &armed = armed_timers();
        require(std::any_of(armed.begin(), armed.end(),
                            [this](const armed_timer &one) {
                                return one.timer == schedule_timer() &&
                                       one.due_ms - machine.uptime * 1000LL <= next_check_max_ms;
                            }),
                "looks at the schedules too late");
    }
};

}  // namespace

void app(Input input) {
    App().play(input);
}

void rules(Input input) {
    const std::string_view script = input.until('\f');
    for (const char *name : {"extcc-lht.cfg", "extcc-lhpc.cfg", "extcc-gst-idx.cfg"}) {
        const std::string_view content = input.until('\f');
        put_file(name, content);
        if (std::string_view(name) == "extcc-lhpc.cfg")
            put_file("extcc-lhf.cfg", content);  // lines without a meaning of their own
    }
    put_file("extcc-gst-tmr.cfg", input.rest());
    App stage;
    stage.play(Input(script));
    stage.play(
        Input("!0\n!1\n!2\n{\"CmdType\":\"EXTCC_DUMP\"}\n{\"CmdType\":\"GET_LANHOST_TIMER\"}\n"
              "{\"CmdType\":\"GET_LANHOST_INFO\"}\n{\"CmdType\":\"GET_GUEST_WIFI\"}\n"));
    access::rules(clock_of_machine, file_folder());  // reads what there is now
}

}  // namespace arvok::fuzz
