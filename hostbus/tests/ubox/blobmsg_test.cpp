// blobmsg: golden wire bytes, validation, policy parsing and in-place string building.
// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

#include "blob_hex.h"

#include <algorithm>
#include <string>

namespace {

struct Blobmsg : testing::Test {
    blob_buf b{};
    void SetUp() override { ASSERT_EQ(blob_buf_init(&b, 0), 0); }
    ~Blobmsg() override { blob_buf_free(&b); }
    blob_attr* first() { return static_cast<blob_attr*>(blob_data(b.head)); }
};

const struct {
    void (*build)(blob_buf* b);
    const char* hex;
} golden[] = {
    {[](blob_buf* b) {
         blobmsg_add_u32(b, "a", 1);
         blobmsg_add_string(b, "b", "x");
     },
     "00 00 00 1c | 85 00 00 0c 00 01 61 00 00 00 00 01 | 83 00 00 0a 00 01 62 00 78 00 00 00"},
    {[](blob_buf* b) {
         void* arr = blobmsg_open_array(b, "arr");
         blobmsg_add_u32(b, nullptr, 1);
         blobmsg_add_string(b, "", "two");
         blobmsg_add_u8(b, nullptr, true);
         blobmsg_close_array(b, arr);
     },
     "00 00 00 34 | 81 00 00 30 00 03 61 72 72 00 00 00 | 85 00 00 0c 00 00 00 00 00 00 00 01 | "
     "83 00 00 0c 00 00 00 00 74 77 6f 00 | 87 00 00 09 00 00 00 00 01 00 00 00"},
    {[](blob_buf* b) {
         void* t = blobmsg_open_table(b, "t");
         blobmsg_add_u32(b, "x", 5);
         void* in = blobmsg_open_table(b, "in");
         blobmsg_add_string(b, "s", "hi");
         blobmsg_close_table(b, in);
         blobmsg_close_table(b, t);
     },
     "00 00 00 30 | 82 00 00 2c 00 01 74 00 | 85 00 00 0c 00 01 78 00 00 00 00 05 | "
     "82 00 00 18 00 02 69 6e 00 00 00 00 | 83 00 00 0b 00 01 73 00 68 69 00 00"},
    {[](blob_buf* b) { blobmsg_add_u8(b, "flag", true); },
     "00 00 00 14 | 87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00"},
    {[](blob_buf* b) { blobmsg_add_double(b, "d", 1.5); },
     "00 00 00 14 | 88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00"},
    {[](blob_buf* b) {
         blobmsg_add_u64(b, "big", 0x0102030405060708);
         blobmsg_add_u16(b, "s", 0x1234);
     },
     "00 00 00 24 | 84 00 00 14 00 03 62 69 67 00 00 00 01 02 03 04 05 06 07 08 | "
     "86 00 00 0a 00 01 73 00 12 34 00 00"},
    {[](blob_buf* b) {
         blobmsg_close_table(b, blobmsg_open_table(b, nullptr));
         blobmsg_close_array(b, blobmsg_open_array(b, "e"));
     },
     "00 00 00 14 | 82 00 00 08 00 00 00 00 | 81 00 00 08 00 01 65 00"},
};

TEST_F(Blobmsg, BuildsTheExpectedWireBytes) {
    for (const auto& g : golden) {
        ASSERT_EQ(blob_buf_init(&b, 0), 0);
        g.build(&b);
        EXPECT_EQ(hex_of(b), normalized(g.hex));
    }
    ASSERT_EQ(blobmsg_buf_init(&b), 0);
    EXPECT_EQ(hex_of(b), "02 00 00 04");
}

TEST(BlobmsgCheck, AcceptsAndRejectsSingleAttributes) {
    const struct {
        const char* hex;
        bool named, unnamed;
    } cases[] = {
        {"85 00 00 0c 00 01 61 00 00 00 00 01", true, true},               // INT32 "a"
        {"85 00 00 10 00 01 61 00 00 00 00 00 00 00 00 01", false, false}, // INT32 of 8 bytes
        {"05 00 00 08 00 00 00 01", false, true},                          // not extended
        {"85 00 00 0c 00 00 00 00 00 00 00 01", false, true},              // empty name
        {"88 00 00 14 00 01 64 00 3f f8 00 00 00 00 00 00 00 00 00 00", true, true}, // DOUBLE 12
        {"89 00 00 08 00 01 61 00", false, false},                                   // type 9
        {"ff 00 00 08 00 01 61 00", false, false},                                   // type 127
        {"83 00 00 0a 00 01 62 00 78 79 00 00", false, false}, // string without NUL
        {"83 00 00 08 00 01 62 00", false, false},             // empty string
        {"82 00 00 0b 00 01 74 00 ff ff ff 00", true, true},   // table of garbage
        {"85 00 00 0c 00 01 61 62 00 00 00 01", false, false}, // name not terminated
        {"85 00 00 05 00 00 00 00", false, false},             // no room for namelen
        {"85 00 00 07 00 05 61 00", false, false},             // name beyond payload
        {"85 00 00 03 00 00 00 00", false, false},             // shorter than header
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> bytes = bytes_of(c.hex);
        EXPECT_EQ(blobmsg_check_attr(attr_of(bytes), true), c.named) << c.hex;
        EXPECT_EQ(blobmsg_check_attr(attr_of(bytes), false), c.unnamed) << c.hex;
        EXPECT_FALSE(
            blobmsg_check_attr_len(attr_of(bytes), false, blob_raw_len(attr_of(bytes)) - 1))
            << c.hex;
    }
}

TEST_F(Blobmsg, CheckArrayCountsChildrenOfOneValidType) {
    void* c = blobmsg_open_array(&b, "x");
    blobmsg_add_u32(&b, nullptr, 1);
    blobmsg_add_u32(&b, nullptr, 2);
    blobmsg_close_array(&b, c);
    blob_attr* array = first();
    EXPECT_EQ(blob_len(array), 28u);
    EXPECT_EQ(blobmsg_data_len(array), 24u);
    EXPECT_EQ(blobmsg_check_array(array, BLOBMSG_TYPE_INT32), 2);
    EXPECT_EQ(blobmsg_check_array(array, BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(array, BLOBMSG_TYPE_STRING), -1);
    EXPECT_EQ(blobmsg_check_array(array, 9), -1);
    EXPECT_EQ(blobmsg_check_array_len(array, BLOBMSG_TYPE_INT32, 31), -1);
    EXPECT_TRUE(blobmsg_check_attr_list(array, BLOBMSG_TYPE_INT32));

    ASSERT_EQ(blob_buf_init(&b, 0), 0);
    c = blobmsg_open_table(&b, "t");
    blobmsg_add_u32(&b, "n", 1);
    blobmsg_add_u32(&b, nullptr, 2);
    blobmsg_close_table(&b, c);
    EXPECT_EQ(blobmsg_check_array(first(), BLOBMSG_TYPE_INT32), -1) << "table members need names";
    blobmsg_add_u32(&b, "scalar", 1);
    EXPECT_FALSE(blobmsg_check_attr_list(blob_next(first()), BLOBMSG_TYPE_UNSPEC));
}

enum { P_ID, P_NAME, P_ANY, P_WIDE, P_SAME_NAME, P_EMPTY, P_NULL, P_MAX };
const blobmsg_policy policy[P_MAX] = {
    {"id", BLOBMSG_TYPE_INT32},     {"name", BLOBMSG_TYPE_STRING}, {"any", BLOBMSG_TYPE_UNSPEC},
    {"wide", BLOBMSG_CAST_INT64},   {"id", BLOBMSG_TYPE_UNSPEC},   {"", BLOBMSG_TYPE_INT8},
    {nullptr, BLOBMSG_TYPE_UNSPEC},
};

int parse(blob_buf& b, blob_attr** tb, unsigned int len) {
    return blobmsg_parse(policy, P_MAX, tb, blob_data(b.head), len);
}

TEST_F(Blobmsg, ParseTakesTheFirstCompatibleOccurrence) {
    blobmsg_add_string(&b, "id", "not an int");
    blobmsg_add_u32(&b, "id", 1);
    blobmsg_add_u32(&b, "id", 2);
    blobmsg_add_string(&b, "name", "first");
    blobmsg_add_string(&b, "name", "second");
    blobmsg_add_string(&b, "nam", "prefix");
    blobmsg_add_u16(&b, "wide", 0xffff);
    blob_put_u8(&b, BLOBMSG_TYPE_INT8, 0); // plain attribute: has no name, skipped
    blobmsg_add_u8(&b, nullptr, 1);
    blobmsg_add_u8(&b, "any", 0);

    blob_attr* tb[P_MAX];
    ASSERT_EQ(parse(b, tb, blob_len(b.head)), 0);
    EXPECT_EQ(blobmsg_get_u32(tb[P_ID]), 1u);
    EXPECT_STREQ(blobmsg_get_string(tb[P_NAME]), "first");
    EXPECT_EQ(blobmsg_type(tb[P_ANY]), BLOBMSG_TYPE_INT8);
    EXPECT_EQ(blobmsg_cast_u64(tb[P_WIDE]), 0xffffu);
    EXPECT_EQ(blobmsg_cast_s64(tb[P_WIDE]), -1);
    EXPECT_STREQ(blobmsg_get_string(tb[P_SAME_NAME]), "not an int");
    EXPECT_TRUE(blobmsg_get_bool(tb[P_EMPTY]));
    EXPECT_EQ(tb[P_NULL], nullptr);
}

TEST_F(Blobmsg, ParseReportsEmptyAndMalformedInput) {
    blob_attr* tb[P_MAX];
    std::fill(tb, tb + P_MAX, b.head);
    EXPECT_EQ(parse(b, tb, 0), -EINVAL);
    EXPECT_EQ(std::count(tb, tb + P_MAX, nullptr), P_MAX);
    EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, nullptr, 8), -EINVAL);

    blobmsg_add_u32(&b, "id", 7);
    blobmsg_add_string(&b, "name", "cut");
    EXPECT_EQ(parse(b, tb, static_cast<unsigned>(blob_len(b.head)) - 2), 0) << "truncated tail";
    EXPECT_EQ(tb[P_NAME], nullptr);

    blob_put_u32(&b, 12, 0); // no field type has this id
    blobmsg_add_string(&b, "any", "late");
    EXPECT_EQ(parse(b, tb, blob_len(b.head)), -1);
    EXPECT_EQ(blobmsg_get_u32(tb[P_ID]), 7u) << "fields before the fault stay filled";
    EXPECT_EQ(tb[P_ANY], nullptr);
}

TEST_F(Blobmsg, ParseArrayMatchesByPosition) {
    void* arr = blobmsg_open_array(&b, nullptr);
    blobmsg_add_string(&b, nullptr, "s0");
    blobmsg_add_u32(&b, nullptr, 10);
    blobmsg_add_u32(&b, nullptr, 11);
    blobmsg_add_string(&b, nullptr, "s1");
    blobmsg_add_u8(&b, nullptr, true);
    blobmsg_add_string(&b, nullptr, "beyond the policy");
    blobmsg_close_array(&b, arr);

    const blobmsg_policy by_position[] = {{nullptr, BLOBMSG_TYPE_INT32},
                                          {nullptr, BLOBMSG_TYPE_STRING},
                                          {nullptr, BLOBMSG_TYPE_UNSPEC}};
    blob_attr* tb[3];
    ASSERT_EQ(blobmsg_parse_array_attr(by_position, 3, tb, first()), 0);
    EXPECT_EQ(blobmsg_get_u32(tb[0]), 10u);
    EXPECT_STREQ(blobmsg_get_string(tb[1]), "s1");
    EXPECT_TRUE(blobmsg_get_bool(tb[2]));
    EXPECT_EQ(blobmsg_parse_array(by_position, 3, tb, blobmsg_data(first()), 0), 0);
    EXPECT_EQ(tb[0], nullptr);

    std::vector<uint8_t> bad =
        bytes_of("85 00 00 0c 00 00 00 00 00 00 00 01 | 83 00 00 09 00 00 00 00 78 00 00 00");
    EXPECT_EQ(blobmsg_parse_array(by_position, 3, tb, bad.data(), 24), -1) << "string without NUL";
}

TEST_F(Blobmsg, StringBuffersGrowInPlace) {
    char* s = static_cast<char*>(blobmsg_alloc_string_buffer(&b, "s", 4));
    strcpy(s, "abc");
    s = static_cast<char*>(blobmsg_realloc_string_buffer(&b, 400));
    EXPECT_EQ(b.buflen, 512);
    strcat(s, "def");
    blobmsg_add_string_buffer(&b);
    EXPECT_EQ(hex_of(b),
              normalized("00 00 00 14 | 83 00 00 0f 00 01 73 00 61 62 63 64 65 66 00 00"));

    void* t = blobmsg_open_table(&b, "t");
    std::string text(600, 'x');
    EXPECT_EQ(blobmsg_printf(&b, "p", "%d-%s", 42, text.c_str()), 603);
    blobmsg_close_table(&b, t);
    blob_attr* table = blob_next(first());
    EXPECT_EQ(blobmsg_check_array(table, BLOBMSG_TYPE_STRING), 1);
    EXPECT_EQ(blobmsg_get_string(static_cast<blob_attr*>(blobmsg_data(table))), "42-" + text);

    std::string too_long(UINT16_MAX + 1, 'n');
    EXPECT_EQ(blobmsg_add_string(&b, too_long.c_str(), "x"), -1) << "name lengths have 16 bits";
}

// Fields accepted from damaged input must lie inside it; the copies are sized exactly so that
// a sanitizer build also reports any read past them.
TEST_F(Blobmsg, DamagedInputNeverYieldsFieldsOutsideIt) {
    void* t = blobmsg_open_table(&b, "t");
    blobmsg_add_string(&b, "k", "v");
    blobmsg_close_table(&b, t);
    blobmsg_add_string(&b, "s", "text");
    blobmsg_add_u32(&b, "i", 3);
    const uint8_t* body = static_cast<const uint8_t*>(blob_data(b.head));
    const std::vector<uint8_t> good(body, body + blob_len(b.head));

    auto check = [](std::vector<uint8_t> msg) {
        const blobmsg_policy fields[] = {
            {"t", BLOBMSG_TYPE_TABLE}, {"s", BLOBMSG_TYPE_STRING}, {"i", BLOBMSG_CAST_INT64}};
        blob_attr* tb[3];
        if (blobmsg_parse(fields, 3, tb, msg.data(), static_cast<unsigned>(msg.size())) != 0)
            return;
        for (blob_attr* attr : tb) {
            if (!attr)
                continue;
            size_t offset = static_cast<size_t>(reinterpret_cast<uint8_t*>(attr) - msg.data());
            EXPECT_LE(offset + blob_raw_len(attr), msg.size());
            blobmsg_check_array_len(attr, BLOBMSG_TYPE_UNSPEC, msg.size() - offset);
        }
    };
    for (size_t len = 0; len <= good.size(); len++)
        check(std::vector<uint8_t>(good.begin(), good.begin() + static_cast<ptrdiff_t>(len)));
    for (size_t pos = 0; pos < good.size(); pos++) {
        for (uint8_t value : {0x00, 0x01, 0x07, 0x80, 0xff}) {
            std::vector<uint8_t> msg(good);
            msg[pos] = value;
            check(msg);
        }
    }
}

} // namespace
