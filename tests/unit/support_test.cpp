// Texts, JSON getters, identities, validators, files and time.

#include <getopt.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "arvok/device_info.h"
#include "arvok/options.h"
#include "cloud_client/server_record.h"
#include "common/clock.h"
#include "common/files.h"
#include "common/identity.h"
#include "common/json.h"
#include "common/network.h"
#include "common/text.h"
#include "context.h"
#include "utask/log.h"

// The sanitizer's allocator ends the process by itself unless it is told to fail like the C library's.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace arvok {
namespace {

using ::testing::MatchesRegex;

TEST(Text, NullIsAnOrdinaryValue) {
    EXPECT_EQ(_strdup(nullptr), nullptr);
    EXPECT_STREQ(_strdup("").get(), "");
    EXPECT_EQ(_strlen(nullptr), -1);
    EXPECT_EQ(_strlen(""), 0);
    for (auto compare : {_strcmp, _strcasecmp}) {
        EXPECT_EQ(compare(nullptr, nullptr), 0);
        EXPECT_EQ(compare(nullptr, "a"), -1);
        EXPECT_EQ(compare("a", nullptr), 1);
        EXPECT_LT(compare("a", "b"), 0);
    }
    EXPECT_NE(_strcmp("a", "A"), 0);
    EXPECT_EQ(_strcasecmp("a", "A"), 0);
}

TEST(Text, CopyCutsAndTerminates) {
    char dst[8] = "0123456";
    EXPECT_EQ(_strlcpy(dst, "abcdef", 4), 6u);
    EXPECT_EQ(std::string(dst, 7),
              std::string("abc") + '\0' + "456");  // nothing beyond the given size is touched
    EXPECT_EQ(_strlcpy(dst, nullptr, 4), 0u);
    EXPECT_EQ(_strlcpy(nullptr, "x", 4), 0u);
    EXPECT_EQ(_strlcpy(dst, "x", 0), 1u);
    EXPECT_STREQ(dst, "abc");
}

TEST(Json, GettersTakeTheExactTypeOrNothing) {
    const json_ptr obj = json_parse(R"({"n":7,"t":"5","e":"","a":["x",3,"z"],"none":[]})");
    ASSERT_TRUE(obj);
    EXPECT_EQ(_get_json_int(obj.get(), "n", -1), 7);
    EXPECT_EQ(_get_json_int(obj.get(), "t", -1), -1);
    EXPECT_EQ(_get_json_int(obj.get(), "absent", -1), -1);
    EXPECT_EQ(_get_json_int(nullptr, "n", -1), -1);
    EXPECT_STREQ(_get_json_str(obj.get(), "e").get(), "");
    EXPECT_EQ(_get_json_str(obj.get(), "n"), nullptr);
    EXPECT_EQ(_get_json_str(nullptr, "t"), nullptr);

    std::vector<text_ptr> texts;
    EXPECT_EQ(_get_json_str_array(obj.get(), "none", texts), 0);
    EXPECT_EQ(_get_json_str_array(obj.get(), "t", texts), 0);
    EXPECT_TRUE(texts.empty());
    ASSERT_EQ(_get_json_str_array(obj.get(), "a", texts), 3);
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_STREQ(texts[0].get(), "x");
    EXPECT_EQ(texts[1], nullptr);
    EXPECT_STREQ(texts[2].get(), "z");
    EXPECT_EQ(texts[3], nullptr);
}

TEST(Json, BuilderKeepsTheOrderOfTheCalls) {
    json_object o;
    o.text("b", "1").number("a", 2).text("missing", nullptr).add("l", json_texts({"x", nullptr}));
    EXPECT_STREQ(json_print(o.get()).get(), R"({"b":"1","a":2,"missing":"","l":["x",""]})");
    json_object nothing{json_ptr()};
    nothing.text("a", "b");
    EXPECT_EQ(nothing.get(), nullptr);
}

TEST(Identity, Macs) {
    struct {
        const char *given;
        int result;
        const char *left;
    } const cases[] = {
        {"aa-bb-cc-dd-ee-ff", 0, "AABBCCDDEEFF"},
        {"aa:bb-cc:dd-ee:0f", 0, "AABBCCDDEE0F"},
        {"0123456789ab", 0, "0123456789AB"},
        {"aabb.ccdd.eeff", -1, "aabb.ccdd.eeff"},
        {"aabbccddeegg", -1, "AABBCCDDEEgg"},
        {"aa:bb:cc:dd:ee.ff", -1, "aa:bb:cc:dd:ee.ff"},
        {"", -1, ""},
        {"aa:bb:cc:dd:ee:ff0", -1, "aa:bb:cc:dd:ee:ff0"},
    };
    for (const auto &c : cases) {
        char mac[32];
        _strlcpy(mac, c.given, sizeof mac);
        EXPECT_EQ(_convert_mac(mac), c.result) << c.given;
        EXPECT_STREQ(mac, c.left) << c.given;
    }
    EXPECT_EQ(_convert_mac(nullptr), -1);
}

TEST(Identity, DigitsAndCharacters) {
    for (int v = 0; v < 16; v++)
        EXPECT_EQ(_h2d(_d2h(v)), v);
    EXPECT_EQ(_h2d('F'), 15);
    EXPECT_EQ(_h2d('g'), 0);
    EXPECT_EQ(_d2h(10), 'a');
    EXPECT_EQ(_d2h(16), '0');
    EXPECT_EQ(_d2h(-1), '0');
    char dst[8] = "";
    _c(dst, 3, 'a', 'b', 'c', 'd');
    EXPECT_STREQ(dst, "abc");
    char cut[8] = "";
    _c(cut, 5, 'x', 0, 'y', 'z', 'z');
    EXPECT_STREQ(cut, "x");
}

TEST(Identity, RandomValuesStayInTheirRangeAndFollowTheSeed) {
    EXPECT_EQ(_get_random_number(5, 5), 5);
    EXPECT_EQ(_get_random_number(7, 3), 7);
    static constexpr char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    seed = 0;
    const text_ptr first = _get_random_string(64);
    EXPECT_NE(seed, 0u);  // seeded itself
    std::srand(seed);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(first.get()[i], alphabet[std::rand() % 62]);
    bool seen[3] = {};
    for (int i = 0; i < 1000; i++) {
        const int n = _get_random_number(-1, 2);
        ASSERT_TRUE(n >= -1 && n <= 1);
        seen[n + 1] = true;
    }
    EXPECT_TRUE(seen[0] && seen[1] && seen[2]);
    EXPECT_STRNE(first.get(), _get_random_string(64).get());
    EXPECT_STREQ(_get_random_string(0).get(), "");
    EXPECT_THAT(_get_uuid(),
                MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

TEST(Validators, AddressesAndPorts) {
    struct {
        int (*check)(const char *);
        const char *text;
        int valid;
    } const cases[] = {
        {is_valid_port, "1", 1},
        {is_valid_port, "65535", 1},
        {is_valid_port, "0", 0},
        {is_valid_port, "65536", 0},
        {is_valid_port, "80x", 0},
        {is_valid_port, "", 0},
        {is_valid_port, "+80", 1},
        {is_valid_port, " 80", 1},
        {is_valid_port, "-1", 0},
        {is_valid_port, nullptr, 0},
        {is_valid_port, "99999999999999999999", 0},
        {is_valid_domain, "a..b", 1},
        {is_valid_domain, "abc-", 1},
        {is_valid_domain, "-abc", 0},
        {is_valid_domain, nullptr, 0},
        {is_valid_domain, "", 0},
        {is_valid_domain, "a_b", 0},
        {is_valid_domain, "\xe4", 0},
        {is_valid_ip, "10.0.0.3", 1},
        {is_valid_ip, "10.0.0.300", 0},
        {is_valid_ip, "10.0.0", 0},
        {is_valid_ip, "::1", 0},
        {is_valid_ip, nullptr, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.check(c.text), c.valid) << text_or_empty(c.text);
}

TEST(Validators, Servers) {
    struct {
        const char *text, *host, *port;
        int valid;
    } const cases[] = {
        {"100.64.0.1:8088", "100.64.0.1", "8088", 1},
        {"bss.example:80", "bss.example", "80", 1},
        {"bss.example", "bss.example", "", 0},
        {":80", "", "", 0},
        {"a:b:c", "a", "b:c", 0},
        {"a:123456789", "a", "1234567", 0},
        {"a:80x", "a", "80x", 0},
        {nullptr, "", "", 0},
    };
    for (const auto &c : cases) {
        server record{};
        str_to_server(c.text, record);
        EXPECT_STREQ(record.host, c.host);
        EXPECT_STREQ(record.port, c.port);
        EXPECT_EQ(is_valid_server(record), c.valid) << text_or_empty(c.text);
        EXPECT_EQ(record.state, 1);
    }
}

TEST(Validators, BandwidthCodes) {
    const char *texts[] = {"20", "40", "0", "80", "160", "80+80"};
    for (int code = 0; code < 6; code++)
        EXPECT_EQ(get_bandwidth_index(texts[code]), code);
    for (const char *unknown : {"auto", "", "8"})
        EXPECT_EQ(get_bandwidth_index(unknown), 2222);
    EXPECT_EQ(get_bandwidth_index(nullptr), 2222);
}

TEST(Options, GoWhereTheyBelong) {
    const auto parse = [](std::vector<std::string> words) {
        words.insert(words.begin(), "arvokclt");
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        g_ctx = {};
        optind = 0;  // starts the option parser anew
        parse_options(static_cast<int>(words.size()), argv.data());
    };
    parse({"-d", "-g", "10.0.0.1", "-b", "bss.example:8088", "-p", "17999", "--gw-addr", "10.0.0.2"});
    EXPECT_EQ(g_ctx.debug, 1);
    EXPECT_EQ(g_ctx.gw_addr_set, 1);
    EXPECT_STREQ(g_ctx.gw_addr, "10.0.0.2");
    EXPECT_EQ(g_ctx.bss_server_set, 1);
    EXPECT_STREQ(g_ctx.bss_server.host, "bss.example");
    EXPECT_STREQ(g_ctx.bss_server.port, "8088");
    EXPECT_EQ(g_ctx.local_port_set, 1);
    EXPECT_STREQ(g_ctx.local_port, "17999");
    parse({"--local-port=+0000017999"});
    EXPECT_STREQ(g_ctx.local_port, "+000001");
    parse({});
    EXPECT_EQ(g_ctx.debug + g_ctx.gw_addr_set + g_ctx.bss_server_set + g_ctx.local_port_set, 0);
}

TEST(Options, TestModePinsTheGateway) {
    constexpr char marker[] = "/tmp/arvokclt_test_mode";
    ASSERT_NE(access(marker, F_OK), 0) << "this machine is in test mode";
    g_ctx = {};
    apply_test_mode();
    EXPECT_EQ(g_ctx.debug + g_ctx.gw_addr_set, 0);
    for (const char *text : {"192.168.8.1\n", "192.168.8.1"}) {
        std::ofstream(marker) << text;
        _strlcpy(g_ctx.gw_addr, "192.168.100.200", sizeof g_ctx.gw_addr);
        apply_test_mode();
        EXPECT_STREQ(g_ctx.gw_addr, "192.168.8.1");
        EXPECT_EQ(g_ctx.debug + g_ctx.gw_addr_set, 2);
    }
    unlink(marker);
}

class Files : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/arvok-files-XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = name;
    }
    void TearDown() override { unlink(path_.c_str()); }
    std::string control(const char *key, std::size_t size = 64) const {
        char out[64] = "untouched";
        _get_control(path_.c_str(), key, out, size);
        return out;
    }
    std::string path_;
};

TEST_F(Files, WholeFiles) {
    char buf[17] = "################";
    EXPECT_EQ(_write_file(path_.c_str(), "0123456789", 10), 10);
    EXPECT_EQ(_get_file_size(path_.c_str()), 10);
    EXPECT_EQ(_read_file(path_.c_str(), buf, 4), 4);
    EXPECT_EQ(std::memcmp(buf, "0123##", 6), 0);
    EXPECT_EQ(_read_file(path_.c_str(), buf, 16), 10);
    EXPECT_EQ(_write_file(path_.c_str(), "x", 1), 1);
    EXPECT_EQ(_get_file_size(path_.c_str()), 1);  // replaced, not appended to
    const std::string missing = path_ + "/none";
    EXPECT_EQ(_read_file(missing.c_str(), buf, 1), -1);
    EXPECT_EQ(_write_file(missing.c_str(), "x", 1), -1);
    EXPECT_EQ(_get_file_size(missing.c_str()), -1);
}

TEST_F(Files, ControlFile) {
    const std::string long_value(2000, 'v');
    std::ofstream(path_) << "# Package: commented\nPackage: first\nPackage: second\nVersion:::  \t1.2 "
                            "(x)\nEmpty:\npackage: low\n"
                         << std::string(200, 'n') << ": over-long name\nLong: " << long_value
                         << "\nLast: end";
    EXPECT_EQ(control("Package"), "first");
    EXPECT_EQ(control("package"), "low");
    EXPECT_EQ(control("Version"), "1.2 (x)");
    EXPECT_EQ(control("Version", 3), "1.");
    EXPECT_EQ(control("Empty"), "untouched");
    EXPECT_EQ(control("Missing"), "untouched");
    EXPECT_EQ(control("Last"), "end");
    EXPECT_EQ(control("Long").size(), 63u);
}

TEST(Output, HexDumpBreaksLinesEvery64Bytes) {
    unsigned char bytes[65] = {0x0a, 0xff};
    ::testing::internal::CaptureStdout();
    _bin_print(bytes, 65);
    _bin_print(bytes, 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "0AFF" + std::string(124, '0') + "\n00 (65)\n (0)\n");
}

TEST(Output, LogRecordsCarryLocalTimeAndTag) {
    setenv("TZ", "FAR-11:30", 1);
    tzset();
    const auto now = [] {
        timespec t;
        clock_gettime(CLOCK_REALTIME, &t);
        char text[32];
        const std::size_t len =
            std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&t.tv_sec));
        std::snprintf(text + len, sizeof text - len, ".%03ld", t.tv_nsec / 1000000);
        return std::string(text);
    };
    const std::string before = now();
    ::testing::internal::CaptureStderr();
    ulog("link", "%s %d\n", "up", 3);
    const std::string record = ::testing::internal::GetCapturedStderr();
    EXPECT_GE(record.substr(0, 23), before);
    EXPECT_LE(record.substr(0, 23), now());
    EXPECT_EQ(record.substr(23), " [link] up 3\n");
}

TEST(Allocation, EndsTheProcessWhenMemoryIsShort) {
    EXPECT_EXIT(ucalloc(SIZE_MAX / 2 + 1, "file.cpp", 7), ::testing::ExitedWithCode(1),
                "\\[ERROR\\] file.cpp 7 alloc failed: -?[0-9]+\n");
    const handle<void, &::free> memory(ucalloc(64, "file.cpp", 7));
    EXPECT_EQ(std::string(static_cast<char *>(memory.get()), 64), std::string(64, '\0'));
}

TEST(Clock, ChinaStandardTimeInEveryZone) {
    const auto before = wall_clock;
    for (const char *zone : {"UTC", "CST-8", "EST5EDT"}) {
        setenv("TZ", zone, 1);
        tzset();
        wall_clock = [] { return std::time_t{0}; };
        EXPECT_STREQ(_get_time(), "19700101080000") << zone;
        wall_clock = [] { return std::time_t{1709222399}; };  // 2024-02-29 15:59:59 UTC
        EXPECT_STREQ(_get_time(), "20240229235959") << zone;
        wall_clock = [] { return std::time_t{2147483648}; };  // 2038-01-19 03:14:08 UTC
        EXPECT_STREQ(_get_time(), "20380119111408") << zone;
        const bool utc = std::strcmp(zone, "UTC") == 0;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(need_offset(1709222399), utc) << zone;
        const char *hour = utc ? "15" : std::strcmp(zone, "CST-8") == 0 ? "23" : "10";
        EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with(
            std::string("now 1709222399, local hour ") + hour + ", gm hour 15, need offset " +
            (utc ? "1" : "0")));
    }
    wall_clock = before;
    unsetenv("TZ");
    tzset();
    EXPECT_GT(_get_uptime(), 0);
}

// get_tul_version reads what an `appd` on the search path prints.
class VersionText : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/arvok-appd-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        old_path_ = getenv("PATH");
        setenv("PATH", (dir_ + ":" + old_path_).c_str(), 1);
        _strlcpy(g_ctx.arch, "ipq5018x", sizeof g_ctx.arch);
        g_ctx.devinfo.reset(static_cast<qzcap_devinfo *>(qzcap_calloc(1, sizeof(qzcap_devinfo))));
    }
    void TearDown() override {
        setenv("PATH", old_path_.c_str(), 1);
        unlink((dir_ + "/appd").c_str());
        rmdir(dir_.c_str());
        g_ctx.devinfo.reset();
    }
    std::string version(const char *vendor, const std::string &output) {
        std::ofstream(dir_ + "/appd") << "#!/bin/sh\nprintf '%s' '" << output << "'\n";
        EXPECT_EQ(chmod_executable(), 0);
        qzcap_free(g_ctx.devinfo->vendor);
        g_ctx.devinfo->vendor = qzcap_strdup(vendor);
        return get_tul_version();
    }
    int chmod_executable() const { return std::system(("chmod +x " + dir_ + "/appd").c_str()); }
    std::string dir_, old_path_;
};

TEST_F(VersionText, IsBuiltFromVendorArchitectureAndAppd) {
    if (access("/qzcap/bin/appd", F_OK) == 0)
        GTEST_FAIL() << "this machine has an appd of its own";
    struct {
        const char *vendor, *output, *text;
    } const cases[] = {
        {"acme", "appd: v2.1.3 (build 5)", "TUL1.0_QZ_ACME_IPQ5018X_V2.1.3"},
        {"Acme Networks", "appd: v1", "TUL1.0_QZ_ACME_IPQ5018X_V1"},
        {"", "appd: v1", "TUL1.0_QZ_UNKNOWN_IPQ5018X_V1"},
        {nullptr, "appd: v1", "TUL1.0_QZ_UNKNOWN_IPQ5018X_V1"},
        {" x", "appd: v1", "TUL1.0_QZ__IPQ5018X_V1"},
        {"acme", "no colon", "TUL1.0_QZ_ACME_IPQ5018X_(NULL)"},
        {"acme", "", "TUL1.0_QZ_ACME_IPQ5018X_(NULL)"},
        {"acme", "appd: 0123456789012345678901234567890",
         "TUL1.0_QZ_ACME_IPQ5018X_01234567890123456789012345"},
        {"acme", "appd: v1\n", "TUL1.0_QZ_ACME_IPQ5018X_V1\n"},
        {"acme", "appd (x): v1", "TUL1.0_QZ_ACME_IPQ5018X_(NULL)"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(version(c.vendor, c.output), c.text) << c.output;
    EXPECT_EQ(version(std::string(100, 'v').c_str(), "a: 1"),
              "TUL1.0_QZ_" + std::string(63, 'V') + "_IPQ5018X_1");
}

}  // namespace
}  // namespace arvok
