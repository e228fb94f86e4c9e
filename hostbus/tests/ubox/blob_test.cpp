// blob: wire bytes, buffer growth, nesting across reallocation, policy parsing, bounded walks.
// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

#include "blob_hex.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct BlobBuf : testing::Test {
    blob_buf b{};
    ~BlobBuf() override { blob_buf_free(&b); }
};

TEST_F(BlobBuf, PlainAttributesAndNestingMatchTheWireFormat) {
    ASSERT_EQ(blob_buf_init(&b, 0), 0);
    EXPECT_EQ(hex_of(b), "00 00 00 04");
    blob_put_u32(&b, 3, 0x11223344);
    blob_put_string(&b, 2, "ab");
    blob_put_u8(&b, 9, 7);
    EXPECT_EQ(hex_of(b), normalized("00 00 00 1c | 03 00 00 08 11 22 33 44 | "
                                    "02 00 00 07 61 62 00 00 | 09 00 00 05 07 00 00 00"));

    ASSERT_EQ(blob_buf_init(&b, 0), 0);
    void* cookie = blob_nest_start(&b, 7);
    blobmsg_add_u32(&b, "a", 1);
    blob_nest_end(&b, cookie);
    EXPECT_EQ(hex_of(b),
              normalized("00 00 00 14 | 07 00 00 10 | 85 00 00 0c 00 01 61 00 00 00 00 01"));
}

bool refuse_grow(blob_buf*, int) {
    return false;
}

TEST_F(BlobBuf, GrowsIn256ByteStepsOfZeroedMemoryAndKeepsIt) {
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
    EXPECT_EQ(hex_of(b), "05 00 00 04");
    EXPECT_EQ(blob_put(&b, 1, nullptr, 0xfffff0), nullptr) << "beyond 24 bits of length";

    b.grow = refuse_grow;
    void* cookie = blobmsg_open_table(&b, std::string(2000, 't').c_str());
    EXPECT_EQ(cookie, nullptr);
    blobmsg_close_table(&b, cookie);
    EXPECT_EQ(hex_of(b), "05 00 00 04");
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

TEST_F(BlobBuf, NestCookiesSurviveTheBufferMoving) {
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
    EXPECT_EQ(hex_of(b),
              normalized("00 00 00 38 | 82 00 00 34 00 01 74 00 | 81 00 00 20 00 01 61 00"
                         " | 85 00 00 0c 00 00 00 00 00 00 00 01"
                         " | 85 00 00 0c 00 00 00 00 00 00 00 02"
                         " | 83 00 00 0a 00 01 73 00 78 00 00 00"));
}

bool reject_zero(const blob_attr_info*, blob_attr* attr) {
    return blob_get_u32(attr) != 0;
}

TEST_F(BlobBuf, ParseKeepsTheLastOccurrenceThatPassesThePolicy) {
    ASSERT_EQ(blob_buf_init(&b, 0), 0);
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

size_t children_within(std::vector<uint8_t>& msg, size_t len) {
    blob_attr* pos;
    size_t rem;
    size_t n = 0;
    blob_for_each_attr_len(pos, attr_of(msg), len, rem) n++;
    return n;
}

TEST(Blob, WalksAndParsesStayWithinTheInput) {
    std::vector<uint8_t> msg =
        bytes_of("00 00 00 14 | 01 00 00 08 00 00 00 2a | 02 00 00 08 00 00 00 07");
    blob_attr* tb[3] = {attr_of(msg), attr_of(msg), attr_of(msg)};
    EXPECT_EQ(blob_parse_untrusted(attr_of(msg), 16, tb, nullptr, 3), 0);
    EXPECT_EQ(tb[0], attr_of(msg)) << "a container longer than the input leaves tb alone";
    EXPECT_EQ(children_within(msg, 12), 1u);
    EXPECT_EQ(blob_parse_untrusted(attr_of(msg), msg.size(), tb, nullptr, 3), 2);
    EXPECT_EQ(blob_get_u32(tb[2]), 7u);

    msg[15] = 0x40; // the second child runs past the container
    EXPECT_EQ(children_within(msg, msg.size()), 1u);
    msg[15] = 0x00; // a zero length would never advance
    EXPECT_EQ(children_within(msg, msg.size()), 1u);
    msg[7] = 0x02; // shorter than its own header: still 4 bytes long, but dropped
    EXPECT_EQ(blob_parse(attr_of(msg), tb, nullptr, 3), 0);
    msg[3] = 0x02; // a container shorter than its own header
    EXPECT_EQ(children_within(msg, msg.size()), 0u);
    EXPECT_EQ(blob_parse(attr_of(msg), tb, nullptr, 3), 0);
}

} // namespace
