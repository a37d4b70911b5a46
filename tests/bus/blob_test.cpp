#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/utils.h>
}

namespace arvok {
namespace {

TEST(Base64, EncodesAndDecodesEveryLength) {
    const char *const texts[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t length = 0; length < std::size(texts); length++) {
        char text[9];
        char bytes[7] = {};
        const int size = static_cast<int>(strlen(texts[length]));

        // The terminator needs its room.
        if (size > 0) {
            EXPECT_EQ(b64_encode("foobar", length, text, static_cast<size_t>(size)), -1);
        }
        ASSERT_EQ(b64_encode("foobar", length, text, static_cast<size_t>(size) + 1), size);
        EXPECT_STREQ(text, texts[length]);
        // The bytes need none, and no more room than they are; but none at all is a fault of the caller.
        if (length > 0) {
            EXPECT_EQ(b64_decode(text, bytes, length), static_cast<int>(length));
        }
        EXPECT_EQ(std::string(bytes), std::string("foobar").substr(0, length));
        if (length > 1) {
            EXPECT_EQ(b64_decode(text, bytes, length - 1), -1);
        }
    }
}

TEST(Base64, DecodesOnlyWhatIsBase64) {
    char bytes[16];

    EXPECT_EQ(b64_decode(" Z m\n9\tv\r\n Yg = = \n", bytes, sizeof(bytes)), 4);
    EXPECT_EQ(std::string(bytes, 4), "foob");
    EXPECT_EQ(b64_decode("+/+/", bytes, sizeof(bytes)), 3);
    EXPECT_EQ(static_cast<uint8_t>(bytes[0]), 0xfb);
    for (const char *wrong : {"Z", "Zg", "Zg=", "Zm8", "=", "====", "Zg===", "Zm9v=", "Zg==Zg==", "Zh==",
                              "Zm9=", "Zm9-", "Zm9\x80", "Z=g="})
        EXPECT_EQ(b64_decode(wrong, bytes, sizeof(bytes)), -1) << wrong;
}

struct Buffer {
    blob_buf buf{};

    Buffer() { EXPECT_EQ(blob_buf_init(&buf, 0), 0); }
    ~Buffer() { blob_buf_free(&buf); }
    Buffer(const Buffer &) = delete;
    std::vector<uint8_t> bytes() const {
        const auto *begin = reinterpret_cast<const uint8_t *>(buf.head);
        return {begin, begin + blob_raw_len(buf.head)};
    }
};

TEST(Blob, LooksOnTheWireAsThePeersExpect) {
    Buffer b;

    blobmsg_add_string(&b.buf, "a", "xyz");
    void *table = blobmsg_open_table(&b.buf, "tab");
    blobmsg_add_u32(&b.buf, nullptr, 0x01020304);
    blobmsg_add_u8(&b.buf, "b", 1);
    blobmsg_close_table(&b.buf, table);
    // clang-format off
    const std::vector<uint8_t> expected = {
        0x00, 0, 0, 52,                                // all of it
        0x83, 0, 0, 12, 0, 1, 'a', 0, 'x', 'y', 'z', 0,
        0x82, 0, 0, 36, 0, 3, 't', 'a', 'b', 0, 0, 0,  // its members follow
        0x85, 0, 0, 12, 0, 0, 0, 0, 1, 2, 3, 4,
        0x87, 0, 0, 9, 0, 1, 'b', 0, 1, 0, 0, 0,       // padded
    };
    // clang-format on
    EXPECT_EQ(b.bytes(), expected);

    // A name must end where it says.
    auto *value = static_cast<blob_attr *>(blob_data(b.buf.head));
    EXPECT_TRUE(blobmsg_check_attr(value, true));
    static_cast<char *>(blob_data(value))[3] = 'b';
    EXPECT_FALSE(blobmsg_check_attr(value, true));
}

TEST(Blob, ParsesByNameAndTypeAndKeepsItsValues) {
    Buffer b;

    blobmsg_add_u16(&b.buf, "u16", 65535);
    blobmsg_add_u64(&b.buf, "u64", 0x8000000000000001);
    blobmsg_add_double(&b.buf, "d", -37.25);
    blobmsg_add_string(&b.buf, "twice", "first");
    blobmsg_add_string(&b.buf, "twice", "second");
    blobmsg_add_u32(&b.buf, "typed", 5);
    blobmsg_add_field(&b.buf, BLOBMSG_TYPE_UNSPEC, "null", nullptr, 0);
    const blobmsg_policy policy[] = {
        {.name = "u16", .type = BLOBMSG_TYPE_INT16},    {.name = "u64", .type = BLOBMSG_TYPE_INT64},
        {.name = "d", .type = BLOBMSG_TYPE_DOUBLE},     {.name = "twice", .type = BLOBMSG_TYPE_STRING},
        {.name = "typed", .type = BLOBMSG_TYPE_STRING}, {.name = "typed", .type = BLOBMSG_TYPE_UNSPEC},
        {.name = "null", .type = BLOBMSG_TYPE_UNSPEC},  {.name = "absent", .type = BLOBMSG_TYPE_UNSPEC},
        {.name = "nul", .type = BLOBMSG_TYPE_UNSPEC},
    };
    blob_attr *tb[std::size(policy)];
    blob_attr *copy = blob_memdup(b.buf.head);
    ASSERT_EQ(blobmsg_parse(policy, std::size(policy), tb, blob_data(copy), unsigned(blob_len(copy))), 0);
    EXPECT_EQ(blobmsg_get_u16(tb[0]), 65535);
    EXPECT_EQ(blobmsg_get_u64(tb[1]), 0x8000000000000001);
    EXPECT_EQ(blobmsg_get_double(tb[2]), -37.25);
    EXPECT_STREQ(blobmsg_get_string(tb[3]), "first");
    EXPECT_EQ(tb[4], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[5]), 5u);
    EXPECT_NE(tb[6], nullptr);
    EXPECT_EQ(tb[7], nullptr);
    EXPECT_EQ(tb[8], nullptr);
    free(copy);
}

}  // namespace
}  // namespace arvok
