#include "probe/report.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "base/hex.h"
#include "base/text.h"

namespace arvok::probe {
namespace {

constexpr unsigned answer_s = 10;
constexpr std::int64_t slow_us = 1'000'000, too_slow_us = 5'000'000;
constexpr std::size_t numbers_max = 1024;
constexpr char closed[] = "\n},\n\"usable\": false}\n";

// The call under way, for the signal that ends it.
const char *volatile running = "";

void write_text(int fd, const char *text) {
    static_cast<void>(!::write(fd, text, std::strlen(text)));
}

// What standard output has got so far ends behind a line.
void give_up(int signal) {
    write_text(STDERR_FILENO, "error: ");
    write_text(STDERR_FILENO, running);
    write_text(STDERR_FILENO, signal == SIGALRM ? ": did not come back in 10 s\n"
                                                : ": crashed, or gave out memory that is not there\n");
    write_text(STDOUT_FILENO, closed);
    _exit(1);
}

std::int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

report::report() {
    for (const int signal : {SIGALRM, SIGSEGV, SIGBUS, SIGABRT})
        std::signal(signal, give_up);
    std::fputs("{\"calls\": {", stdout);
    std::fflush(stdout);
}

report::~report() {
    std::fputs(usable_ ? "\n},\n\"usable\": true}\n" : closed, stdout);
}

void report::begin(const std::string &call) {
    call_ = call;
    running = call_.c_str();
    remarks_ = {};
    errors_ = {};
    alarm(answer_s);  // also for what is done with the outcome
    begun_us_ = now_us();
}

void report::end() {
    took_us_ = now_us() - begun_us_;
}

void report::check_time() {
    if (took_us_ > too_slow_us)
        error(format("took %d ms: the gateway gives up before the agent goes on",
                     static_cast<int>(took_us_ / 1000)));
    else if (took_us_ > slow_us)
        remark(format("took %d ms, in which the agent does nothing else", static_cast<int>(took_us_ / 1000)));
}

void report::write(const char *kind, const json::value &outcome) {
    std::string line = json::object()
                           .number("milliseconds", static_cast<double>(took_us_) / 1000)
                           .add(kind, outcome)
                           .add("remarks", remarks_.take())
                           .add("errors", errors_.take())
                           .take()
                           .take();
    std::printf("%s\n%s: %s", first_ ? "" : ",", json::text(call_).text().c_str(), line.c_str());
    std::fflush(stdout);
    first_ = false;
}

void report::note(const char *rank, json::array &list, const std::string &text) {
    usable_ = usable_ && &list != &errors_;
    list.add(json::text(text));
    std::fprintf(stderr, "%s: %s: %s\n", rank, call_.c_str(), text.c_str());
}

void item::add_numbers(const char *key, const std::uint32_t *numbers) {
    json::array listed;
    std::size_t count = 0;
    while (numbers && count < numbers_max && numbers[count] != 0)
        listed.add(json::number(numbers[count++]));
    members.add(key, listed.take());
    if (count == numbers_max)
        error(key, format("no zero ends the list within %zu numbers", numbers_max));
}

void item::check_mac(const char *key, const char *text) {
    if (!is_mac(view_of(text)))
        remark(key, "no MAC: " + quoted(text));
}

void item::check_word(const char *key, const char *text, std::initializer_list<const char *> words) {
    if (std::none_of(words.begin(), words.end(), [=](const char *w) { return view_of(text) == w; }))
        remark(key, quoted(text) + " is taken for " + quoted(*(words.end() - 1)));
}

void item::check_range(const char *key, std::int64_t n, std::int64_t least, std::int64_t most) {
    if (n < least || n > most)
        remark(key, format("%lld is not from %lld to %lld", static_cast<long long>(n),
                           static_cast<long long>(least), static_cast<long long>(most)));
}

void item::check_text(const char *key, const char *text) {
    if (!text)
        remark(key, "null, reported as \"\"");
}

void item::check_decimal(const char *key, const char *text) {
    constexpr std::int64_t exact_max = std::int64_t{1} << 53;
    std::int64_t n = 0;
    const std::string_view digits = view_of(text);
    const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
    if (digits.empty() || failure != std::errc() || end != digits.data() + digits.size())
        remark(key, "no decimal number: " + quoted(text));
    else
        check_range(key, n, 0, exact_max);
}

std::string quoted(const char *text) {
    return text ? json::text(text).take() : "null";
}

std::string masked(const char *text) {
    return format("(%zu bytes)", view_of(text).size());
}

}  // namespace arvok::probe
