#include <gtest/gtest.h>

#include <memory>
#include <string>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace arvok {
namespace {

struct FreeText {
    void operator()(char *text) const { free(text); }
};

std::string take(char *text) {
    const std::unique_ptr<char, FreeText> owner(text);
    return text ? text : "(null)";
}

// Through a blob and back; "(refused)" when the text is not taken.
std::string round_trip(const std::string &text, int indent = -1) {
    blob_buf b{};
    blob_buf_init(&b, 0);
    const bool taken = blobmsg_add_json_from_string(&b, text.c_str());
    const std::string result = taken ? take(blobmsg_format_json_indent(b.head, true, indent)) : "(refused)";
    blob_buf_free(&b);
    return result;
}

TEST(Json, SurvivesTheWayThroughABlob) {
    for (const char *text : {
             R"({})",
             R"({"a":1,"b":"x"})",
             R"({"t":true,"f":false,"n":null})",
             R"({"low":-2147483648,"high":2147483647,"above":2147483648,"below":-2147483649})",
             R"({"max":9223372036854775807,"min":-9223372036854775808})",
             R"({"whole":37.0,"part":0.1,"small":1e-07,"third":0.3333333333333333,"big":1e+300})",
             R"({"nested":{"list":[1,[2,[]],{"deep":{"er":["x"]}}],"empty":{}},"after":0})",
             R"({"quote\"name":"line\nfeed\ttab\\back\u0001","utf8":"Übergröße 日本 😀"})",
             R"({"":"no name"})",
         })
        EXPECT_EQ(round_trip(text), text);
}

TEST(Json, OtherSpellingsBecomeTheUsualOne) {
    EXPECT_EQ(round_trip(" { \"a\" : [ 1 , 2 ] , \"u\" : \"\\u00e9\\/\" } \n"), "{\"a\":[1,2],\"u\":\"é/\"}");
    EXPECT_EQ(round_trip(R"({"a":1,"b":[true,{}],"c":{"d":"e"}})", 0),
              "{\n\t\"a\": 1,\n\t\"b\": [\n\t\ttrue,\n\t\t{}\n\t],\n\t\"c\": {\n\t\t\"d\": \"e\"\n\t}\n}");
}

TEST(Json, AnythingElseThanOneObjectIsRefused) {
    const std::string deep = std::string(3000, '[') + std::string(3000, ']');
    for (const std::string &text :
         {std::string(), std::string("x"), std::string("1"), std::string("[1]"), std::string("null"),
          std::string("{"), std::string("{\"a\":}"), std::string("{\"a\":1,}"), std::string("{\"a\":1}}"),
          std::string("{} {}"), "{\"a\":" + deep + "}"})
        EXPECT_EQ(round_trip(text), "(refused)") << text.substr(0, 40);
}

}  // namespace
}  // namespace arvok
