// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <gtest/gtest.h>

#include <orvix_testing/blob.h>

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>

#include <limits>
#include <map>
#include <string>
#include <typeindex>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::buf;
using orvix::blob::table;
using orvix::blob::utils::to_table;
using orvix_testing::bytes;
using policy = std::multimap<std::string, std::type_index>;

using uchar = unsigned char;
using ushort = unsigned short;

std::string dump(const buf& message) {
    return orvix_testing::to_hex(*message.native());
}

std::string dump(const table& fields) {
    return dump(buf(fields));
}

table decoded(const std::string& wire) {
    bytes data = orvix_testing::from_hex(wire);
    return to_table(reinterpret_cast<blob_attr*>(data.data()));
}

// Each message both ways: the fields encode to the bytes, and the bytes decode to fields
// that encode to them again (INT8 decodes as unsigned char, which encodes as bool does).
TEST(blob_wire, golden_messages_encode_and_decode) {
    const struct {
        const char* what;
        table fields;
        std::string wire;
    } cases[] = {
        {"empty", {}, "00 00 00 04"},
        {"int32 and string",
         {{"a", 1u}, {"b", "x"}},
         "00 00 00 1c 85 00 00 0c 00 01 61 00 00 00 00 01 83 00 00 0a 00 01 62 00 78 00 00 00"},
        {"array members unnamed, in list order",
         {{"arr", array{1u, "two", true}}},
         "00 00 00 34 81 00 00 30 00 03 61 72 72 00 00 00 85 00 00 0c 00 00 00 00 00 00 00 01 "
         "83 00 00 0c 00 00 00 00 74 77 6f 00 87 00 00 09 00 00 00 00 01 00 00 00"},
        {"nested table in key order",
         {{"t", table{{"x", 5u}, {"in", table{{"s", "hi"}}}}}},
         "00 00 00 30 82 00 00 2c 00 01 74 00 82 00 00 18 00 02 69 6e 00 00 00 00 "
         "83 00 00 0b 00 01 73 00 68 69 00 00 85 00 00 0c 00 01 78 00 00 00 00 05"},
        {"table inside an array",
         {{"l", array{table{{"k", true}}}}},
         "00 00 00 20 81 00 00 1c 00 01 6c 00 82 00 00 14 00 00 00 00 "
         "87 00 00 09 00 01 6b 00 01 00 00 00"},
        {"empty containers, empty name",
         {{"", table{}}, {"e", array{}}},
         "00 00 00 14 82 00 00 08 00 00 00 00 81 00 00 08 00 01 65 00"},
        {"bool true",
         {{"flag", true}},
         "00 00 00 14 87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00"},
        {"bool false",
         {{"flag", false}},
         "00 00 00 14 87 00 00 0d 00 04 66 6c 61 67 00 00 00 00 00 00"},
        {"int8", {{"b", uchar(0xab)}}, "00 00 00 10 87 00 00 09 00 01 62 00 ab 00 00 00"},
        {"double 1.5", {{"d", 1.5}}, "00 00 00 14 88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00"},
        {"double -2", {{"d", -2.0}}, "00 00 00 14 88 00 00 10 00 01 64 00 c0 00 00 00 00 00 00 00"},
        {"double 0.1", {{"d", 0.1}}, "00 00 00 14 88 00 00 10 00 01 64 00 3f b9 99 99 99 99 99 9a"},
        {"int64 and int16 big-endian",
         {{"big", 0x0102030405060708ull}, {"s", ushort(0x1234)}},
         "00 00 00 24 84 00 00 14 00 03 62 69 67 00 00 00 01 02 03 04 05 06 07 08 "
         "86 00 00 0a 00 01 73 00 12 34 00 00"},
        {"int32 big-endian",
         {{"i", 0x0a0b0c0du}},
         "00 00 00 10 85 00 00 0c 00 01 69 00 0a 0b 0c 0d"},
        {"signed int", {{"i", -1}}, "00 00 00 10 85 00 00 0c 00 01 69 00 ff ff ff ff"},
        {"signed short", {{"s", short(-2)}}, "00 00 00 10 86 00 00 0a 00 01 73 00 ff fe 00 00"},
        {"signed char",
         {{"c", static_cast<signed char>(-1)}},
         "00 00 00 10 87 00 00 09 00 01 63 00 ff 00 00 00"},
        {"signed long long",
         {{"l", std::numeric_limits<long long>::min()}},
         "00 00 00 14 84 00 00 10 00 01 6c 00 80 00 00 00 00 00 00 00"},
        {"string up to its first NUL",
         {{"s", std::string("ab\0cd", 5)}},
         "00 00 00 10 83 00 00 0b 00 01 73 00 61 62 00 00"},
        {"empty string", {{"s", ""}}, "00 00 00 10 83 00 00 09 00 01 73 00 00 00 00 00"},
        {"bytes as unspec",
         {{"u", bytes{1, 0, 3}}},
         "00 00 00 10 80 00 00 0b 00 01 75 00 01 00 03 00"},
        {"no bytes", {{"u", bytes()}}, "00 00 00 0c 80 00 00 08 00 01 75 00"},
        {"equal keys in insertion order",
         {{"k", 1u}, {"a", 9u}, {"k", "two"}},
         "00 00 00 28 85 00 00 0c 00 01 61 00 00 00 00 09 85 00 00 0c 00 01 6b 00 00 00 00 01 "
         "83 00 00 0c 00 01 6b 00 74 77 6f 00"},
        {"long name, longer header",
         {{"longername", uchar(7)}},
         "00 00 00 1c 87 00 00 15 00 0a 6c 6f 6e 67 65 72 6e 61 6d 65 00 00 00 00 07 00 00 00"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(dump(c.fields), c.wire);
        EXPECT_EQ(dump(decoded(c.wire)), c.wire);
    }
}

TEST(blob_wire, every_message_decodes_to_what_encodes_to_its_bytes_again) {
    const table every_kind{
        {"bytes", bytes{0, 1, 0xfe, 0xff}},
        {"text", "h\xc3\xa9llo, w\xc3\xb6rld"},
        {"u64", std::numeric_limits<unsigned long long>::max()},
        {"u32", 0x89abcdefu},
        {"u16", ushort(0xfedc)},
        {"u8", uchar(0x80)},
        {"double", 3.141592653589793},
        {"array", array{1u, "two", 3.0, bytes{4}}},
        {"empty table", table{}},
    };
    table doubles;
    for (double number :
         {-0.0, std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::denorm_min(),
          std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest()}) {
        doubles.emplace("d", number);
    }
    const table inner{{"k", 3u}, {"k", "three"}, {"k", 1u}};
    const table equal_keys{{"k", inner}, {"k", 2u}, {"k", inner}};
    attr deep(42u);
    for (int depth = 0; depth < 100; ++depth) {
        deep = depth % 2 == 0 ? attr(array{deep}) : attr(table{{"level", deep}});
    }
    bytes large(100000);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<uchar>(i * 7);
    }
    const table long_values{{std::string(300, 'n'), std::string(70000, 'v')}, {"", large}};

    for (const table& fields :
         {every_kind, doubles, equal_keys, table{{"deep", deep}}, long_values}) {
        const buf message(fields);
        EXPECT_EQ(dump(buf(to_table(message.native()->head))), dump(message));
    }

    // A policy naming each field with its kind picks every one of them.
    policy wanted;
    for (const auto& field : every_kind) {
        wanted.emplace(field.first, field.second.type());
    }
    const buf message(every_kind);
    EXPECT_EQ(dump(buf(to_table(message.native()->head, wanted))), dump(message));
}

} // namespace
