// Years of an agent's life in minutes: status requests, notifications of the platform, lost connections. Runs
// in a home without peers and agent; it is both peers, and starts the agent itself.
//
//   soak REQUESTS NOTIFICATIONS RECONNECTIONS
//
// The agent's memory, descriptors and timers are looked at before each part, at its quarters and at its end,
// whenever nothing is under way; one table shows them. What has grown fails the soak: see `judge`.
//
// Reconnections wait for timers. The agent's clock runs ahead by steps short enough that every deadline
// between two of them is met, as on a real device; see lab/clock/timers.h.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "base/bus_message.h"
#include "base/handle.h"
#include "cloud_peer.h"
#include "home.h"
#include "lab/clock/timers.h"
#include "link_peer.h"

extern "C" {
#include <libubus.h>
}

namespace arvok::bench {
namespace {

using steady = std::chrono::steady_clock;

#ifdef __SANITIZE_ADDRESS__
constexpr bool memory_counts = false;  // what has been freed is kept
#else
constexpr bool memory_counts = true;
#endif

// --- the agent's clock ---

class agent_clock {
  public:
    agent_clock() {
        const std::string path = std::string(std::getenv("LAB_DIR")) + "/timers";
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0 || ftruncate(fd, sizeof *page_) != 0)
            fail("cannot make " + path);
        void *page = mmap(nullptr, sizeof *page_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (page == MAP_FAILED)
            fail("cannot map " + path);
        page_ = static_cast<lab_timers *>(page);
        setenv("LAB_TIMERS", path.c_str(), 1);
    }

    // Moves the clock, and waits until the agent has done what was due then.
    void ahead(int ms) {
        const std::int64_t target = page_->ahead + ms;
        page_->ahead = target;
        wait("take the time", [&] { return page_->taken == target; });
        const std::int64_t before = page_->waits;
        wait("run its timers", [&] { return page_->waits != before; });
    }
    // What there is when the agent has nothing to do: timers, and bytes of the heap.
    long armed() const { return static_cast<long>(page_->armed); }
    long heap() const { return static_cast<long>(page_->heap); }

  private:
    static void wait(const char *what, const std::function<bool()> &done) {
        const auto end = steady::now() + std::chrono::seconds(30);
        while (!done()) {
            if (steady::now() > end)
                fail(std::string("the agent does not ") + what);
            usleep(100);
        }
    }

    lab_timers *page_ = nullptr;
};

// --- what is looked at ---

struct sample {
    long count = 0;                    // requests, notifications or reconnections until then
    long resident = 0, anonymous = 0;  // memory in KiB
    long heap = 0;                     // bytes in use
    long descriptors = 0, timers = 0;
};

long status_field(pid_t pid, const std::string &name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name))
            return std::atol(line.c_str() + name.size());
    fail("the agent has gone");
}

long count_descriptors(pid_t pid) {
    DIR *folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!folder)
        fail("the agent has gone");
    long count = 0;
    while (const dirent *entry = readdir(folder))
        count += entry->d_name[0] != '.';
    closedir(folder);
    return count;
}

// --- the platform's bus ---

class platform_bus {
  public:
    platform_bus() : ctx_(ubus_connect(std::getenv("UBUS_SOCKET"))) {
        if (!ctx_ || ubus_lookup_id(ctx_.get(), "qzcapd.emulator", &emulator_) != 0)
            fail("no bus, or not the platform's");
    }

    void notify(int object, const std::string &method, const std::string &message) {
        bus_message call;
        call.number("object", object);
        call.text("method", method);
        call.add_json("{\"message\":" + message + "}");
        const auto answered = [](ubus_request *, int, blob_attr *) {};
        if (ubus_invoke(ctx_.get(), emulator_, "notify", call.get(), answered, nullptr, 5000) != 0)
            fail("the platform does not notify");
    }

  private:
    handle<ubus_context, &ubus_free> ctx_;
    std::uint32_t emulator_ = 0;
};

// --- the soak ---

class soak {
  public:
    soak() : agent_(start_agent(clock_), output::log) {
        link_.await_registration();
        acknowledge();
        cloud_.enrol(platform::device::unknown);
        // Everything that can be told is told.
        link_.write(
            link_.encode(R"({"type":"cfg","sequence":9,"mac":"0200000000FE","set":{"mode":"set","eventsub":)"
                         R"(["online","offline","vsie","rolechange"]}})"));
    }

    // True when nothing has grown.
    bool run(long requests, long notifications, long reconnections) {
        std::printf("%-22s %9s %9s %9s %9s %11s %6s %7s\n", "", "", "resident", "anonymous", "heap",
                    "descriptors", "timers", "seconds");
        fill_lists();
        bool good = part("status requests", requests, request_batch, [this] { send_requests(); });
        good &= part("notifications", notifications, notification_batch, [this] { send_notifications(); });
        good &= part("gateway reconnections", reconnections, 1, [this] { lose_gateway(); });
        good &= part("cloud reconnections", reconnections, 1, [this] { lose_cloud(); });
        kill(agent_.pid(), SIGTERM);
        agent_.join();
        return good;
    }

  private:
    static constexpr int request_batch = 250, pipeline = 32, notification_batch = 50;
    static constexpr int all_items_errcode = 10001;  // of the two items that nobody knows
    static constexpr int step_ms = 4000;        // no deadline of a keepalive or heartbeat is shorter than two
    static constexpr int long_connection = 32;  // seconds; three shorter ones make the agent rest for hours
    static constexpr long memory_tolerance = 128;  // KiB
    static constexpr long heap_tolerance = 2048;   // bytes
    static constexpr int full_lists = 1100;        // hosts; the agent remembers fewer

    static std::vector<const char *> start_agent(const agent_clock &) {
        const std::string preload = std::string(std::getenv("ARVOK_LIB")) + "/liblab_timers.so";
        setenv("LD_PRELOAD", preload.c_str(), 1);
        // What threads keep for themselves of freed memory would count as in use.
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0",
               0);  // its scripts are no programs of the sanitizer
        return {"lab-agent", "-g", gateway_address, "-b", bootstrap_server};
    }

    void acknowledge() { link_.write(link_.encode(R"({"type":"ack","sequence":2,"errcode":0})")); }

    // What the agent remembers up to a limit is there before anything is compared.
    void fill_lists() {
        for (int i = 0; i < full_lists; i++)
            bus_.notify(5, "newdevice", R"({"mac":"new"})");
    }

    // Time passes, and whatever the agent sends is answered.
    void step() {
        clock_.ahead(step_ms);
        link_.serve();
        cloud_.serve();
    }

    // Requests follow the answers, so that some are always under way. Most ask the agent alone, some the
    // platform, few for everything; the last of a batch goes through the cloud.
    void send_requests() {
        int sent = 0;
        const auto send_next = [&] {
            if (sent < request_batch - 1)
                link_.write(link_.encode(status_requests[sent == 0 ? 2 : sent % 16 == 1 ? 1 : 0].text));
            sent++;
        };
        while (sent < pipeline)
            send_next();
        for (int i = 0; i < request_batch - 1; i++) {
            const std::string answer = link_.next_frame();
            if (i == 0 && link_.decode(answer)["errcode"].integer() != all_items_errcode)
                fail("a status request was answered with something else");
            send_next();
        }
        const std::string answer = cloud_.round_trip(cloud_.wrapped(status_requests[0].text));
        if (cloud_.decode(answer, platform::cipher::aes)["Result"].integer() != 0)
            fail("a request of the cloud failed");
    }

    // Notifications of every object, and a last one whose report shows that the agent has seen all of them.
    void send_notifications() {
        struct notification {
            int object;
            const char *method, *message;  // with a number in it
        };
        static constexpr notification table[] = {
            {5, "devicestatus", R"({"mac":"02C0FFEE0001","active":1,"n":%ld})"},
            {5, "newdevice", R"({"mac":"02AA%08lX"})"},
            {5, "devicestatus", R"({"mac":"02AA%08lX","active":0})"},
            {6, "wanstatus", R"({"ipaddr":"10.0.0.%ld"})"},
            {7, "wpsswitch", R"({"wpsswitch":"on","n":%ld})"},
            {15, "mode", R"({"mode":"agent","n":%ld})"},
            {16, "roamingreport",
             R"({"roamingreport":[{"mac":"m","connecttime":%ld,"rssi":-50,"channel":6}]})"},
            {30, "vsie", R"({"band":0,"mac":"m","vsie":[221,5],"n":%ld})"},
            {5, "devicestatus", R"({"mac":"02C0FFEE0001","active":0,"n":%ld})"},
        };
        char text[160];
        for (int i = 0; i < notification_batch - 1; i++, told_++) {
            const notification &next = table[static_cast<std::size_t>(told_) % std::size(table)];
            std::snprintf(text, sizeof text, next.message, told_);
            bus_.notify(next.object, next.method, text);
        }
        const std::string mark = "seen " + std::to_string(told_++);
        bus_.notify(6, "mark", "{\"status\":\"" + mark + "\"}");
        while (link_.decode(link_.next_frame())["status"]["status"].text() != mark) {
        }
        cloud_.serve();
    }

    void lose_gateway() {
        for (int s = 0; s < long_connection; s += step_ms / 1000)
            step();
        link_.hang_up();
        do
            step();
        while (!link_.take_registration());
        acknowledge();
    }

    void lose_cloud() {
        cloud_.hang_up();
        do
            step();
        while (!cloud_.take_known());
    }

    // Looks at the agent when nothing is under way: as many descriptors and timers as there should be, or
    // whatever there are after a while.
    sample look(long count, const sample *expected) {
        sample now;
        for (int tries = 0; tries < 100; tries++) {
            usleep(20000);
            link_.serve();
            cloud_.serve();
            now = {.count = count,
                   .resident = status_field(agent_.pid(), "VmRSS:"),
                   .anonymous = status_field(agent_.pid(), "RssAnon:"),
                   .heap = clock_.heap(),
                   .descriptors = count_descriptors(agent_.pid()),
                   .timers = clock_.armed()};
            if (expected ? now.descriptors == expected->descriptors && now.timers == expected->timers
                         : tries >= 25)
                break;
        }
        return now;
    }

    // One part, in quarters, and its verdict.
    bool part(const char *name, long size, int batch, const std::function<void()> &run_batch) {
        const auto begin = steady::now();
        std::vector<sample> samples = {look(0, nullptr)};
        show(name, samples.back(), begin);
        long done = 0;
        for (long quarter = 1; quarter <= 4; quarter++) {
            for (; done < size * quarter / 4; done += batch) {
                run_batch();
                trim_log();
            }
            samples.push_back(look(done, &samples.front()));
            show("", samples.back(), begin);
        }
        return judge(name, samples);
    }

    // Descriptors and timers must be what they were. The heap must be what it was after the first quarter,
    // but for a buffer that an unusually long message has enlarged; in a full run, a leak of a byte in two
    // hundred requests is more than that. Pages come and go with how the heap is cut into pieces, which takes
    // more room.
    static bool judge(const char *name, const std::vector<sample> &samples) {
        const sample &first = samples[0], &warm = samples[1], &last = samples[4];
        bool good = true;
        const auto check = [&](bool is_good, const char *what) {
            if (!is_good)
                std::printf("%s: %s grew\n", name, what);
            good &= is_good;
        };
        check(last.descriptors == first.descriptors, "descriptors");
        check(last.timers == first.timers, "timers");
        if (memory_counts) {
            check(last.heap - warm.heap <= heap_tolerance, "the heap");
            check(last.anonymous - warm.anonymous <= memory_tolerance, "anonymous memory");
            check(last.resident - warm.resident <= memory_tolerance, "resident memory");
        }
        return good;
    }

    static void show(const char *name, const sample &now, steady::time_point begin) {
        std::printf("%-22s %9ld %5ld KiB %5ld KiB %7ld B %11ld %6ld %7.1f\n", name, now.count, now.resident,
                    now.anonymous, now.heap, now.descriptors, now.timers,
                    std::chrono::duration<double>(steady::now() - begin).count());
        std::fflush(stdout);
    }

    // The agent's log would fill the disk; a sanitizer's report comes at the end.
    void trim_log() {
        if (++batches_ % 50 != 0)
            return;
        const std::string log = std::string(std::getenv("LAB_DIR")) + "/bench.log";
        if (truncate(log.c_str(), 0) != 0)
            fail("cannot cut " + log);
    }

    agent_clock clock_;
    platform_bus bus_;
    gateway link_;
    platform cloud_;
    program agent_;
    long told_ = 0, batches_ = 0;
};

}  // namespace
}  // namespace arvok::bench

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    if (argc != 4)
        arvok::bench::fail("usage: soak REQUESTS NOTIFICATIONS RECONNECTIONS");
    if (!std::getenv("LAB_DIR") || !std::getenv("ARVOK_LIB"))
        arvok::bench::fail("a home is needed, and ARVOK_LIB: see make soak");
    return arvok::bench::soak().run(std::atol(argv[1]), std::atol(argv[2]), std::atol(argv[3])) ? 0 : 1;
}
