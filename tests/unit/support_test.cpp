// Texts, JSON, digits and MACs, random values, files, time, the middleware's version, and options.

#include <getopt.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/options.h"
#include "base/bus_message.h"
#include "base/clock.h"
#include "base/command.h"
#include "base/files.h"
#include "base/hex.h"
#include "base/json.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/random.h"
#include "base/text.h"
#include "platform/middleware.h"

namespace arvok {
namespace {

using ::testing::MatchesRegex;

long uptime_s = 1000;

TEST(Text, IsCutBetweenCharacters) {
    const std::string characters[] = {"a", "é", "€", "😀", "z"};
    std::string text, whole;
    for (const std::string &c : characters)
        text += c;
    std::size_t next = 0, begun = 0;
    for (std::size_t size = 0; size <= text.size() + 2; size++) {
        while (next < std::size(characters) && begun + characters[next].size() <= size) {
            begun += characters[next].size();
            whole += characters[next++];
        }
        EXPECT_EQ(cut(text, size), whole) << size;
    }
    // What is no UTF-8 is cut where it has to be.
    EXPECT_EQ(cut("a\x80\x80\x80\x80\x80z", 5), "a\x80\x80\x80\x80");
    EXPECT_EQ(cut("\x80\x80\x80", 1), "\x80");
    EXPECT_EQ(cut("\xc3\xc3\xa9", 2), "\xc3");
    EXPECT_EQ(cut("\xff\xff\xff", 2), "\xff\xff");
}

TEST(Json, IsWrittenAsTheLibraryWouldWriteIt) {
    std::string every;
    for (int c = 1; c < 256; c++)
        every += static_cast<char>(c);
    const handle<cJSON, &cJSON_Delete> reference(cJSON_CreateObject());
    cJSON_AddStringToObject(reference.get(), every.c_str(), every.c_str());
    cJSON_AddStringToObject(reference.get(), "", "");
    const double numbers[] = {0, 7, -1, 2147483647, -2147483648.0, 0.5, -1e-7, 1.0 / 3, 1e300, NAN};
    for (const double n : numbers)
        cJSON_AddNumberToObject(reference.get(), "n", n);
    json::object object;
    object.member(std::string_view(every)).text(every).text("", "");
    for (const double n : numbers)
        object.number("n", n);
    const std::string text = object.take().take();
    const malloc_text expected(cJSON_PrintUnformatted(reference.get()));
    EXPECT_EQ(text, expected.get());
    EXPECT_EQ(json::parse(text).root().print(), text);

    for (const char *endless : {"1e999", "-1e999"}) {
        const json::document read = json::parse(endless);
        EXPECT_EQ(read.root().number(), 0);
        EXPECT_EQ(read.root().integer(), 0);
    }

    // Whole numbers have all their digits, and a zero within a text is written.
    const struct {
        double n;
        const char *digits;
    } whole[] = {{-0.0, "0"},
                 {2147483648.0, "2147483648"},
                 {9007199254740991, "9007199254740991"},
                 {-9007199254740992, "-9007199254740992"},
                 {18014398509481984, "18014398509481984"},
                 {1e20, "1e+20"}};
    for (const auto &w : whole)
        EXPECT_EQ(json::number(w.n).text(), w.digits);
    EXPECT_EQ(json::text(std::string_view("a\0b", 3)).text(), R"("a\u0000b")");
}

TEST(Json, KeepsTheOrderOfTheCallsAndLeavesOutWhatIsNone) {
    const json::document in = json::parse(R"({"o":{"b":1,"d":2},"e":{},"a":[1,"x"],"t":"é"} and more)");
    char *const missing = nullptr;
    json::array array;
    array.add({}).add(json::number(1)).add(json::copy(in["t"])).add(json::copy(in["none"]));
    json::object object(in["o"], {"d"}), fresh(in["e"], {}), replaced(in["a"], {});
    object.text("a", missing).add("none", {}).add("l", array.take()).add("e", json::array().take());
    EXPECT_EQ(object.take().text(), R"({"b":1,"a":"","l":[1,"é"],"e":[]})");
    EXPECT_EQ(fresh.number("n", 1).take().text(), R"({"n":1})");
    EXPECT_EQ(replaced.take().text(), "{}");
    EXPECT_FALSE(json::value());
}

TEST(Json, WritesNoMoreThanAMessageMayHave) {
    const std::string half(json::text_max / 2, 'x'), controls(json::text_max / 4, '\x01');
    json::object object;
    object.text("a", "b").open_array("l").text(half);
    const json::writer::position before = object.here();
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(object.open_object().text("n", half).close().is_too_long());
        object.back_to(before);
        EXPECT_TRUE(object.text(controls).is_too_long());
        EXPECT_LT(object.here().size, json::text_max + 100);
        object.back_to(before);
    }
    object.again(object.here().size - 3, 3).number(1).close();
    json::object first;
    first.number("f", 1);
    object.begin_with(first);
    EXPECT_EQ(object.take().text(), R"({"f":1,"a":"b","l":[")" + half + R"(",xx",1]})");

    // To the last byte, and one more.
    for (const std::size_t more : {0, 1}) {
        json::object whole;
        whole.text("a", std::string(json::text_max - 8 + more, 'x'));
        const std::string text = whole.take().take();
        EXPECT_EQ(text.size(), more ? 0 : json::text_max);
    }
    EXPECT_FALSE(json::text(controls + half));
}

TEST(BusMessage, IsWrittenAsItsTextWouldBe) {
    bus_message message;
    ASSERT_TRUE(message.add_json(
        R"({"text":"ä\n\"\\","":7,"big":123456789012345,"negative":-1,"low":-2147483648,"fraction":1.5,)"
        R"("yes":true,"no":false,"none":null,"list":[1,"two",{"three":3},[]],"table":{"a":{}},"x\"y":""})"));
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    blobmsg_add_u16(&buffer, "short", 0xfffe);
    blobmsg_add_u64(&buffer, "long", static_cast<std::uint64_t>(-9007199254740991));
    for (blob_attr *each : {message.get(), buffer.head}) {
        json::object written;
        EXPECT_TRUE(write_members(written, each));
        const std::string text = json_of(each).value_or("");
        EXPECT_EQ(written.take().text(),
                  each == buffer.head ? text : json::copy(json::parse(text).root()).text());
    }

    // Which it may not be: too deep, none, longer than any message.
    std::vector<void *> open;
    for (int level = 0; level < 1000; level++)
        open.push_back(blobmsg_open_table(&buffer, "level"));
    for (; !open.empty(); open.pop_back())
        blobmsg_close_table(&buffer, open.back());
    json::object to;
    EXPECT_FALSE(write_members(to, buffer.head));
    EXPECT_FALSE(write_members(to, nullptr));
    blob_buf_init(&buffer, 0);
    for (int i = 0; i < 2; i++)
        blobmsg_add_string(&buffer, "half", std::string(json::text_max * 2 / 3, 'x').c_str());
    EXPECT_TRUE(write_members(to, buffer.head));
    EXPECT_TRUE(to.is_too_long());
    EXPECT_LE(to.here().size, json::text_max);
    blob_buf_free(&buffer);
}

TEST(Json, AMemberIsOfItsTypeOrNothing) {
    const json::document in = json::parse(R"({"n":7.9,"big":1e12,"t":"5","e":"","a":[3,{"x":"y"}]})");
    EXPECT_EQ(in["n"].integer(), 7);
    EXPECT_EQ(in["n"].number(), 7.9);
    EXPECT_EQ(in["big"].integer(), INT_MAX);
    EXPECT_EQ(in["t"].integer(), std::nullopt);
    EXPECT_EQ(in["e"].text(), "");
    EXPECT_EQ(in["n"].text(), std::nullopt);
    EXPECT_EQ(in["T"]["deeper"].first().text(), std::nullopt);
    std::string elements;
    for (const std::string name : {"a", "none"})
        for (const json::view element : in[name.c_str()])
            elements += element.print() + ";";
    EXPECT_EQ(elements, R"(3;{"x":"y"};)");
    EXPECT_FALSE(json::parse("{"));
    // What would take too much memory is none.
    const auto ones = [](int count) {
        std::string text = "[1";
        for (int i = 1; i < count; i++)
            text += ",1";
        return text + "]";
    };
    EXPECT_TRUE(json::parse(ones(8000)));
    EXPECT_FALSE(json::parse(ones(40000)));
}

TEST(Hex, DigitsAndMacs) {
    for (int v = 0; v < 16; v++)
        EXPECT_EQ(hex_value(hex_digit(v)), v);
    EXPECT_EQ(hex_value('F'), 15);
    EXPECT_EQ(hex_value('g'), 0);
    EXPECT_EQ(hex_digit(-1), 'f');
    for (const char *given : {"aa-bb-cc-dd-ee-0f", "aa:BB-cc:dd-ee:0f", "aabbccddee0f"}) {
        EXPECT_EQ(normalised_mac(given), "AABBCCDDEE0F");
        EXPECT_TRUE(is_mac(given));
    }
    for (const char *given : {"aabb.ccdd.eeff", "aa:bb:cc:dd:ee.ff", "aa:bb:cc:dd:ee:ff0", ""}) {
        EXPECT_EQ(normalised_mac(given), given);
        EXPECT_FALSE(is_mac(given)) << given;
    }
    EXPECT_EQ(normalised_mac("aa:bb:cc:dd:eg:ff"), "AABBCCDDEgff");
    EXPECT_FALSE(is_mac("aabbccddeegg"));
}

TEST(Log, NobodyElseMakesLines) {
    const auto logged = [](const char *format, const std::string &said) {
        ::testing::internal::CaptureStderr();
        errno = ENOENT;
        log_printf(format, said.c_str(), 7);
        EXPECT_EQ(errno, ENOENT);
        return ::testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(logged("<- %s (%d)\n", "a\n[ERROR] b\r\t\x1b[2J\x7f\\"),
              "<- a\\x0a[ERROR] b\\x0d\\x09\\x1b[2J\\x7f\\ (7)\n");
    EXPECT_EQ(logged("%s\n", "é€😀\n\n"), "é€😀\\x0a\\x0a\n");
    EXPECT_EQ(logged("%s\n", "\xc2\x80 1;\xc2\x9bm \xc2\x9f\xc2"),
              "\\xc2\\x80 1;\\xc2\\x9bm \\xc2\\x9f\xc2\n");
    EXPECT_EQ(logged("%s\n", "\xc2\xa0\xc3\x9b\xc2\x1f"), "\xc2\xa0\xc3\x9b\xc2\\x1f\n");
    EXPECT_EQ(logged("no end %s", "\n"), "no end \\x0a");
    EXPECT_EQ(logged("\n", ""), "\n");
    EXPECT_EQ(logged("%s %d %%", "a%s"), "a%s 7 %");
    // Wherever it stands in a word, and none beside it.
    for (std::size_t at = 0; at < 20; at++)
        for (const char c : {'\x01', '\x1f', '\x7f', ' ', '\x80', '\xff'}) {
            std::string text(20, '~'), shown = text;
            text[at] = c;
            const bool control = c == '\x7f' || (c > 0 && c < ' ');
            shown.replace(at, 1, control ? format("\\x%02x", c) : std::string(1, c));
            EXPECT_EQ(logged("%s\n", text), shown + "\n");
        }
    const std::string longest(40000, 'x');
    EXPECT_EQ(logged("%s\n\n", "\x01" + longest), "\\x01" + longest + "\n\n");
}

// Nothing is there to make a line with either, nor for what is done at a usual end.
TEST(Memory, IsThereOrTheProcessEndsWithALine) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer has an end of its own";
#endif
    EXPECT_EXIT(allocate(std::size_t{1} << 62), ::testing::ExitedWithCode(1),
                R"(^\[ERROR\] memory\.cpp [0-9]+ alloc failed: 2147483647
$)");
}

TEST(Random, ValuesStayInTheirRange) {
    EXPECT_EQ(random_number(7, 3), 7);
    bool seen[3] = {};
    for (int i = 0; i < 1000; i++) {
        const int n = random_number(-1, 2);
        ASSERT_TRUE(n >= -1 && n <= 1);
        seen[n + 1] = true;
    }
    EXPECT_TRUE(seen[0] && seen[1] && seen[2]);
    EXPECT_THAT(random_text(64), MatchesRegex("[0-9A-Za-z]{64}"));
    EXPECT_THAT(random_uuid(),
                MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

class Files : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/arvok-files-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        path_ = folder_ + "/file";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::string folder_, path_;
};

TEST_F(Files, AreReadAndReplacedWhole) {
    EXPECT_FALSE(file_exists(path_));
    EXPECT_EQ(read_file(path_, 4), file_content(no_file()));
    EXPECT_EQ(read_file(path_ + "/none", 4), file_content(no_file()));
    const std::string content = std::string("01\0xxx", 6) + std::string(10000, 'y');
    EXPECT_EQ(save_file(path_, content), std::nullopt);
    EXPECT_EQ(read_file(path_, 4), file_content(content.substr(0, 4)));
    EXPECT_EQ(read_file(path_, 99999), file_content(content));
    EXPECT_EQ(save_file(path_, "x"), std::nullopt);
    EXPECT_EQ(read_file(path_, 99), file_content("x"));
    // What may be there all the same is not taken for nothing.
    EXPECT_EQ(read_file(path_ + "/none", 99), file_content(unreadable_file{"Not a directory"}));
    // Nobody waits for the other end of a pipe.
    const std::string pipe = folder_ + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    alarm(10);
    EXPECT_EQ(read_file(pipe, 99), file_content(no_file()));
    alarm(0);
    EXPECT_EQ(remove_file(pipe), std::nullopt);
    EXPECT_EQ(save_file(path_ + "/none", "x"), "Not a directory");
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(remove_file(path_), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST(Commands, TellOneLineAndAreNotWaitedForLonger) {
    // Its seconds tell a program of this process from those of others.
    const std::string sleep = "sleep 31." + std::to_string(getpid());
    const struct {
        std::string command;
        std::optional<std::string> told;
        double longest_s;
    } cases[] = {
        {"printf abcdef; exit 3", "abcd", 1.9},
        {"exit 3", "", 1.9},
        {"printf a; sleep 0.3; echo b; " + sleep, "ab\n", 1.9},
        {"echo a; echo b", "a\n", 1.9},
        {"printf a; trap '' TERM; " + sleep + " & " + sleep, "a", 20},
        {"exec >&-; " + sleep, "", 1.9},
    };
    for (const auto &c : cases) {
        double shortest_s = 60;
        for (int tries = 0; tries < 5 && shortest_s > c.longest_s; tries++) {  // the machine may be busy
            const auto began = std::chrono::steady_clock::now();
            EXPECT_EQ(command_output(c.command.c_str(), 4), c.told) << c.command;
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
            shortest_s = std::min(shortest_s, took.count());
        }
        EXPECT_LT(shortest_s, c.longest_s) << c.command;
    }
    // What was killed may take a moment to be gone.
    const std::string wait =
        "for i in $(seq 50); do pgrep -f '^" + sleep + "$' >/dev/null || exit 0; sleep 0.1; done; exit 1";
    EXPECT_EQ(std::system(wait.c_str()), 0);
}

TEST_F(Files, AControlFileTellsTheFirstOfAName) {
    std::ofstream(path_) << "# Package: commented\nPackage: first\nPackage: second\nVersion:::  \t1.2 "
                            "(x)\nEmpty:\npackage: low\n"
                         << std::string(200, 'n') << ": over-long name\nLast: end";
    const std::pair<const char *, const char *> cases[] = {{"Package", "first"},   {"package", "low"},
                                                           {"Version", "1.2 (x)"}, {"Empty", ""},
                                                           {"Missing", ""},        {"Last", "end"}};
    for (const auto &[key, value] : cases)
        EXPECT_EQ(control_value(path_, key), value) << key;
    EXPECT_EQ(control_value(folder_ + "/none", "Package"), "");
}

TEST(Clock, ChinaStandardTimeInEveryZone) {
    const struct {
        const char *zone;
        int hour;
    } zones[] = {{"UTC0", 15}, {"CST-8", 23}, {"EST5EDT", 10}};
    for (const auto &z : zones) {
        setenv("TZ", z.zone, 1);
        tzset();
        EXPECT_EQ(time_digits(0), "19700101080000") << z.zone;
        EXPECT_EQ(time_digits(1709222399), "20240229235959") << z.zone;  // 2024-02-29 15:59:59 UTC
        EXPECT_EQ(time_digits(2147483648), "20380119111408") << z.zone;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(keeps_utc(1709222399), z.hour == 15) << z.zone;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  format("now 1709222399, local hour %d, gm hour 15, need offset %d", z.hour, z.hour == 15));
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(uptime(), uptime_s);
}

// What an `appd` on the search path prints is in the version.
TEST_F(Files, TheMiddlewaresVersionIsBuiltFromVendorArchitectureAndAppd) {
    if (file_exists("/qzcap/bin/appd"))
        GTEST_FAIL() << "this machine has an appd of its own";
    const std::string program = folder_ + "/appd", path = getenv("PATH");
    setenv("PATH", (folder_ + ":" + path).c_str(), 1);
    platform::middleware middleware;
    const struct {
        std::string vendor, output, version;
    } cases[] = {
        {"acme", "appd: v2.1.3 (build 5)", "ACME_IPQ5018X_V2.1.3"},
        {"Acme Networks", "appd: v1", "ACME_IPQ5018X_V1"},
        {"", "appd: v1", "UNKNOWN_IPQ5018X_V1"},
        {"acme", "appd: 0123456789012345678901234567890", "ACME_IPQ5018X_01234567890123456789012345"},
        {"acme", "appd: v1\n", "ACME_IPQ5018X_V1\n"},
        {"acme", "appd (x): v1", "ACME_IPQ5018X_(NULL)"},
        {std::string(100, 'v'), "a: 1", std::string(63, 'V') + "_IPQ5018X_1"},
    };
    for (const auto &c : cases) {
        std::ofstream(program) << "#!/bin/sh\nprintf '%s' '" << c.output << "'\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        uptime_s += 60;
        EXPECT_EQ(middleware.version(c.vendor), "TUL1.0_QZ_" + c.version);
    }
    // For a minute it is not asked again.
    std::ofstream(program) << "#!/bin/sh\necho 'a: 2'\n";
    uptime_s += 59;
    EXPECT_EQ(middleware.version("b"), "TUL1.0_QZ_B_IPQ5018X_1");
    uptime_s += 1;
    EXPECT_EQ(middleware.version("b"), "TUL1.0_QZ_B_IPQ5018X_2\n");
    setenv("PATH", path.c_str(), 1);
}

TEST_F(Files, TheTestModePinsTheGatewayOverWhatOptionsSay) {
    std::string words[] = {"arvokclt",         "-d", "-g",          "10.0.0.1",  "-b",
                           "bss.example:8088", "-p", "00000017999", "--gw-addr", "10.0.0.2"};
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    optind = 0;  // starts the option parser anew
    options chosen = parse_options(static_cast<int>(std::size(words)), arguments.data());
    apply_test_mode(chosen, path_);
    EXPECT_TRUE(chosen.debug);
    EXPECT_EQ(chosen.gateway_address, "10.0.0.2");  // the last
    ASSERT_TRUE(chosen.bss);
    EXPECT_EQ(chosen.bss->host + " " + chosen.bss->port, "bss.example 8088");
    EXPECT_EQ(chosen.local_port, "0000001");  // its first seven
    const std::string whole = "192.168.8.1", longest(31, 'x'), option = "10.0.0.2";
    const std::pair<std::string, std::string> markers[] = {{whole, whole},
                                                           {whole + "\n", whole},
                                                           {whole + "\r\n", whole + "\r"},
                                                           {longest + "x", longest},
                                                           {"\n", option},
                                                           {"", option},
                                                           {whole + '\0', whole},
                                                           {std::string(4, '\0'), option},
                                                           {std::string("\n\0x", 3), option}};
    for (const auto &[marker, address] : markers) {
        save_file(path_, marker);
        options pinned;
        pinned.gateway_address = option;
        apply_test_mode(pinned, path_);
        EXPECT_EQ(pinned.gateway_address, address);
        EXPECT_TRUE(pinned.debug);
    }
    options without;
    apply_test_mode(without, path_);
    EXPECT_EQ(without.gateway_address, std::nullopt);
}

}  // namespace
}  // namespace arvok

int sysinfo(struct sysinfo *info) noexcept {
    info->uptime = arvok::uptime_s;
    return 0;
}
