// blob and blobmsg: golden wire bytes, buffer growth, nesting across reallocation, policy
// parsing, validation and bounded walks.
// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg.h>
}

#include <orvix_testing/blob.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using orvix_testing::bytes;
using orvix_testing::from_hex;
using orvix_testing::message_blob;
using orvix_testing::normalized_hex;
using orvix_testing::to_hex;

struct Blob : testing::Test {
    blob_buf b{};
    void SetUp() override { ASSERT_EQ(blob_buf_init(&b, 0), 0); }
    ~Blob() override { blob_buf_free(&b); }
    blob_attr* first() { return static_cast<blob_attr*>(blob_data(b.head)); }
};

const struct {
    void (*build)(blob_buf* b);
    const char* hex;
} golden[] = {
    {[](blob_buf* b) {
         blob_put_u32(b, 3, 0x11223344);
         blob_put_string(b, 2, "ab");
         blob_put_u8(b, 9, 7);
     },
     "00 00 00 1c | 03 00 00 08 11 22 33 44 | 02 00 00 07 61 62 00 00 | 09 00 00 05 07 00 00 00"},
    {[](blob_buf* b) {
         void* cookie = blob_nest_start(b, 7);
         blobmsg_add_u32(b, "a", 1);
         blob_nest_end(b, cookie);
     },
     "00 00 00 14 | 07 00 00 10 | 85 00 00 0c 00 01 61 00 00 00 00 01"},
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
    {[](blob_buf* b) { blobmsg_buf_init(b); }, "02 00 00 04"},
};

TEST_F(Blob, BuildsTheExpectedWireBytes) {
    for (const auto& g : golden) {
        ASSERT_EQ(blob_buf_init(&b, 0), 0);
        g.build(&b);
        EXPECT_EQ(to_hex(b), normalized_hex(g.hex));
    }
    blob_attr* copy = blob_memdup(b.head);
    EXPECT_TRUE(blob_attr_equal(copy, b.head));
    free(copy);
}

bool refuse_grow(blob_buf*, int) {
    return false;
}

TEST_F(Blob, GrowsIn256ByteStepsOfZeroedMemoryAndKeepsIt) {
    blob_buf_free(&b);
    // Freed blocks full of garbage, for the allocator to hand out again.
    for (size_t size : {256, 512, 1024, 1536}) {
        void* block = malloc(size);
        memset(block, 0xa5, size);
        free(block);
    }
    ASSERT_EQ(blob_buf_init(&b, 0), 0);
    EXPECT_EQ(b.buflen, 256);
    blob_put(&b, 1, nullptr, 300);
    EXPECT_EQ(b.buflen, 512);
    blob_put(&b, 1, nullptr, 1000);
    EXPECT_EQ(b.buflen, 1536);
    const char* mem = static_cast<const char*>(b.buf);
    EXPECT_EQ(std::count(mem + 8, mem + 308, 0), 300);
    EXPECT_EQ(std::count(mem + 312, mem + b.buflen, 0), b.buflen - 312);

    ASSERT_EQ(blob_buf_init(&b, 5), 0);
    EXPECT_EQ(b.buflen, 1536);
    EXPECT_EQ(to_hex(b), "05 00 00 04");
    EXPECT_EQ(blob_put(&b, 1, nullptr, 0xfffff0), nullptr) << "beyond 24 bits of length";

    b.grow = refuse_grow;
    void* cookie = blobmsg_open_table(&b, std::string(2000, 't').c_str());
    EXPECT_EQ(cookie, nullptr);
    blobmsg_close_table(&b, cookie);
    EXPECT_EQ(to_hex(b), "05 00 00 04");
    blob_buf_free(&b);
    EXPECT_EQ(blob_buf_init(&b, 0), -ENOMEM);
}

int last_minlen;

// Always moves the data and poisons the old block, so a stale pointer would show.
bool moving_grow(blob_buf* buf, int minlen) {
    last_minlen = minlen;
    char* mem = static_cast<char*>(calloc(1, static_cast<size_t>(buf->buflen + minlen)));
    if (buf->buf) {
        memcpy(mem, buf->buf, static_cast<size_t>(buf->buflen));
        memset(buf->buf, 0xaa, static_cast<size_t>(buf->buflen));
        free(buf->buf);
    }
    buf->buf = mem;
    buf->buflen += minlen;
    return true;
}

TEST_F(Blob, NestCookiesSurviveTheBufferMoving) {
    blob_buf_free(&b);
    b.grow = moving_grow;
    ASSERT_EQ(blob_buf_init(&b, 0), 0);
    EXPECT_EQ(last_minlen, 4) << "the grower is asked for the missing bytes";
    void* outer = blobmsg_open_table(&b, "t");
    void* inner = blobmsg_open_array(&b, "a");
    blobmsg_add_u32(&b, nullptr, 1);
    blobmsg_add_u32(&b, nullptr, 2);
    blobmsg_close_array(&b, inner);
    blobmsg_add_string(&b, "s", "x");
    blobmsg_close_table(&b, outer);
    EXPECT_EQ(to_hex(b), normalized_hex("00 00 00 38 | 82 00 00 34 00 01 74 00 |"
                                        "81 00 00 20 00 01 61 00"
                                        " | 85 00 00 0c 00 00 00 00 00 00 00 01"
                                        " | 85 00 00 0c 00 00 00 00 00 00 00 02"
                                        " | 83 00 00 0a 00 01 73 00 78 00 00 00"));
}

TEST_F(Blob, StringBuffersGrowInPlace) {
    char* s = static_cast<char*>(blobmsg_alloc_string_buffer(&b, "s", 4));
    strcpy(s, "abc");
    s = static_cast<char*>(blobmsg_realloc_string_buffer(&b, 400));
    EXPECT_EQ(b.buflen, 512);
    strcat(s, "def");
    blobmsg_add_string_buffer(&b);
    EXPECT_EQ(to_hex(b),
              normalized_hex("00 00 00 14 | 83 00 00 0f 00 01 73 00 61 62 63 64 65 66 00 00"));

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

bool reject_zero(const blob_attr_info*, blob_attr* attr) {
    return blob_get_u32(attr) != 0;
}

TEST_F(Blob, BlobParseKeepsTheLastOccurrenceThatPassesThePolicy) {
    blob_put_u32(&b, 1, 10);
    blob_put_u32(&b, 1, 11);
    blob_put_u16(&b, 1, 12); // wrong size
    blob_put_u32(&b, 2, 0);  // refused by validate
    blob_put_string(&b, 3, "ok");
    blob_put_string(&b, 3, "");     // below minlen
    blob_put_string(&b, 3, "long"); // above maxlen
    blob_put_u8(&b, 4, 1);          // id beyond the table
    const blob_attr_info info[4] = {{},
                                    {BLOB_ATTR_INT32, 0, 0, nullptr},
                                    {BLOB_ATTR_INT32, 0, 0, reject_zero},
                                    {BLOB_ATTR_STRING, 6, 7, nullptr}};
    blob_attr* tb[4];

    EXPECT_EQ(blob_parse(b.head, tb, info, 4), 2);
    EXPECT_EQ(tb[0], nullptr);
    EXPECT_EQ(blob_get_u32(tb[1]), 11u);
    EXPECT_EQ(tb[2], nullptr);
    EXPECT_STREQ(blob_get_string(tb[3]), "ok");

    EXPECT_EQ(blob_parse(b.head, tb, nullptr, 4), 3);
    EXPECT_EQ(blob_get_u16(tb[1]), 12u);
    EXPECT_STREQ(blob_get_string(tb[3]), "long");
}

// The container's children within `len` bytes of it.
size_t children_within(blob_attr* container, size_t len) {
    blob_attr* pos;
    size_t rem;
    size_t n = 0;
    blob_for_each_attr_len(pos, container, len, rem) n++;
    return n;
}

TEST(BlobWalk, WalksAndParsesStayWithinTheInput) {
    const bytes good = from_hex("00 00 00 14 | 01 00 00 08 00 00 00 2a | 02 00 00 08 00 00 00 07");
    message_blob m(good);
    blob_attr* msg = m.first();
    blob_attr* tb[3] = {msg, msg, msg};
    EXPECT_EQ(blob_parse_untrusted(msg, 16, tb, nullptr, 3), 0);
    EXPECT_EQ(tb[0], msg) << "a container longer than the input leaves tb alone";
    EXPECT_EQ(children_within(msg, 12), 1u);
    EXPECT_EQ(blob_parse_untrusted(msg, good.size(), tb, nullptr, 3), 2);
    EXPECT_EQ(blob_get_u32(tb[2]), 7u);

    // Each damage adds to the ones before; -1: not looked at.
    const struct {
        size_t at;
        uint8_t value;
        int children, parsed;
    } damages[] = {
        {15, 0x40, 1, -1}, // the second child runs past the container
        {15, 0x00, 1, -1}, // a zero length would never advance
        {7, 0x02, -1, 0},  // shorter than its own header: still 4 bytes long, but dropped
        {3, 0x02, 0, 0},   // a container shorter than its own header
    };
    bytes damaged = good;
    for (const auto& d : damages) {
        damaged[d.at] = d.value;
        message_blob dm(damaged);
        if (d.children >= 0) {
            EXPECT_EQ(children_within(dm.first(), damaged.size()), size_t(d.children)) << d.at;
        }
        if (d.parsed >= 0) {
            EXPECT_EQ(blob_parse(dm.first(), tb, nullptr, 3), d.parsed) << d.at;
        }
    }
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
        message_blob m{std::string_view(c.hex)};
        EXPECT_EQ(blobmsg_check_attr(m.first(), true), c.named) << c.hex;
        EXPECT_EQ(blobmsg_check_attr(m.first(), false), c.unnamed) << c.hex;
        EXPECT_FALSE(blobmsg_check_attr_len(m.first(), false, blob_raw_len(m.first()) - 1))
            << c.hex;
    }
}

TEST_F(Blob, CheckArrayCountsChildrenOfOneValidType) {
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

TEST_F(Blob, ParseTakesTheFirstCompatibleOccurrence) {
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

TEST_F(Blob, ParseReportsEmptyAndMalformedInput) {
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

TEST_F(Blob, ParseArrayMatchesByPosition) {
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

    message_blob bad{std::string_view(
        "85 00 00 0c 00 00 00 00 00 00 00 01 | 83 00 00 09 00 00 00 00 78 00 00 00")};
    EXPECT_EQ(blobmsg_parse_array(by_position, 3, tb, bad.first(), 24), -1) << "string without NUL";
}

} // namespace
