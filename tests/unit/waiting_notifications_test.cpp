// The notifications that wait: their order, and who goes when there are too many.

#include "agent/waiting_notifications.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "base/log.h"

namespace arvok {
namespace {

using waiting = waiting_notifications;

std::vector<std::string> logged;
void keep(const char *format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    logged.emplace_back(line);
}

waiting_notification of(const std::string &text, const std::string &host = {}) {
    return {nullptr, "method", text, host};
}
std::vector<std::string> drained(waiting &from) {
    std::vector<std::string> texts;
    while (const auto next = from.take())
        texts.push_back(next->text);
    return texts;
}

TEST(WaitingNotifications, ComeInTheirOrder) {
    waiting all;
    for (const char *text : {"1", "2", "3"})
        all.add(of(text, "same"));
    EXPECT_EQ(all.newest(), 3u);
    EXPECT_EQ(all.take()->number, 1u);
    all.add(of("4"));
    EXPECT_EQ(drained(all), (std::vector<std::string>{"2", "3", "4"}));
    EXPECT_FALSE(all.take());
}

TEST(WaitingNotifications, BeyondTheLimitTheOldestOfTheSameHostGoes) {
    log_output = keep;
    waiting all;
    for (std::size_t i = 0; i < waiting::count_max; i++)
        all.add(of(std::to_string(i), "host " + std::to_string(i % 600)));
    all.add(of("news", "host 7"));      // 7 goes, not 607
    all.add(of("stranger", "nobody"));  // 0 goes
    all.add(of("wan"));                 // 1 goes
    const std::vector<std::string> left = drained(all);
    ASSERT_EQ(left.size(), waiting::count_max);
    EXPECT_EQ(std::vector<std::string>(left.begin(), left.begin() + 6),
              (std::vector<std::string>{"2", "3", "4", "5", "6", "8"}));
    EXPECT_EQ(std::vector<std::string>(left.end() - 4, left.end()),
              (std::vector<std::string>{"1023", "news", "stranger", "wan"}));
    EXPECT_EQ(logged, (std::vector<std::string>{
                          "[WARNING] too many notifications of the platform: old ones are dropped\n",
                          "[INFO] 3 notifications of the platform were dropped\n"}));
}

TEST(WaitingNotifications, TheirTextsHaveALimit) {
    waiting all;
    const std::string large(waiting::bytes_max / 4, 'x');
    for (int i = 0; i < 20; i++)
        all.add(of(large));
    EXPECT_EQ(drained(all).size(), 3u);
    all.add(of(large + large + large + large + large));
    EXPECT_EQ(drained(all).size(), 1u) << "one alone always waits";
}

}  // namespace
}  // namespace arvok
