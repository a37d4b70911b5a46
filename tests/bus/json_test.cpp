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

TEST(Json, IntegersHaveTheSmallestTypeThatIsUsed) {
    blob_buf b{};
    blob_buf_init(&b, 0);
    ASSERT_TRUE(
        blobmsg_add_json_from_string(&b, R"({"i":-2147483648,"l":2147483648,"b":true,"n":null,"d":2.0})"));
    const enum blobmsg_type types[] = {BLOBMSG_TYPE_INT32, BLOBMSG_TYPE_INT64, BLOBMSG_TYPE_INT8,
                                       BLOBMSG_TYPE_UNSPEC, BLOBMSG_TYPE_DOUBLE};
    blob_attr *member;
    size_t rem;
    size_t i = 0;
    blob_for_each_attr(member, b.head, rem) {
        ASSERT_LT(i, std::size(types));
        EXPECT_EQ(blobmsg_type(member), types[i++]) << blobmsg_name(member);
    }
    EXPECT_EQ(i, std::size(types));
    blob_buf_free(&b);
}

TEST(Json, SingleValuesAndOwnRenderings) {
    blob_buf b{};
    blob_buf_init(&b, 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(&b, R"({"key":[1,"secret"]})"));
    auto *member = static_cast<blob_attr *>(blob_data(b.head));
    const auto hide = [](void *priv, blob_attr *attr) -> const char * {
        return blobmsg_type(attr) == BLOBMSG_TYPE_STRING ? static_cast<const char *>(priv) : nullptr;
    };
    char stars[] = "\"***\"";

    EXPECT_EQ(take(blobmsg_format_json_value(member)), R"([1,"secret"])");
    EXPECT_EQ(take(blobmsg_format_json(member, false)), R"("key":[1,"secret"])");
    EXPECT_EQ(take(blobmsg_format_json_with_cb(b.head, true, hide, stars, -1)), R"({"key":[1,"***"]})");
    EXPECT_EQ(blobmsg_format_json(nullptr, true), nullptr);
    blob_buf_free(&b);
}

}  // namespace
}  // namespace arvok
