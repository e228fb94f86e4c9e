// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <gtest/gtest.h>

#include <orvix_testing/blob.h>

#include <orvix/blob/json.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <orvix_testing/field_builder.h>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::json_layout;
using orvix::blob::table;
using orvix::blob::to_json;
using orvix_testing::from_hex;
using orvix_testing::message_blob;

using bytes = std::vector<unsigned char>;

using message = orvix_testing::field_builder;

std::string compact(const message& m) {
    return to_json(m.buf.head);
}

std::string indented(const message& m) {
    return to_json(m.buf.head, json_layout::indented);
}

TEST(json, prints_every_value_kind_as_the_tool_does) {
    const struct {
        attr value;
        const char* printed;
    } cases[] = {
        {attr(true), "true"},
        {attr(false), "false"},
        // One byte on the wire, as bool is.
        {attr(static_cast<unsigned char>(7)), "true"},
        {attr(static_cast<unsigned char>(0)), "false"},
        {attr(static_cast<short>(-2)), "-2"},
        {attr(static_cast<unsigned short>(65535)), "-1"},
        {attr(-5), "-5"},
        {attr(4294967295u), "-1"},
        {attr(-9223372036854775807LL - 1), "-9223372036854775808"},
        {attr(18446744073709551615ULL), "-1"},
        {attr(1.5), "1.500000"},
        {attr(-0.0), "-0.000000"},
        {attr("say \"hi\"\n"), R"("say \"hi\"\n")"},
        {attr(std::string("ab\0c", 4)), R"("ab")"},
        {attr(bytes{1, 2, 3}), "null"},
        {attr(array{attr(1), attr("two"), attr(array{})}), R"([1,"two",[]])"},
        {attr(table{{"k", attr(1)}, {"", attr(2)}}), R"({2,"k":1})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(to_json(c.value), c.printed) << c.printed;
    }
    EXPECT_THROW(to_json(attr()), std::logic_error);
}

TEST(json, prints_a_table_in_its_order_with_equal_names) {
    const table t{{"b", attr(1)}, {"a", attr("x")}, {"b", attr(2)}};
    EXPECT_EQ(to_json(t), R"({"a":"x","b":1,"b":2})");
    EXPECT_EQ(to_json(table{}), "{}");
    EXPECT_EQ(to_json(table{}, json_layout::indented), "{\n\t\n}");
    EXPECT_THROW(to_json(table{{"empty", attr()}}), std::logic_error);
}

TEST(json, prints_indented_with_tabs_and_compact_without_blanks) {
    const table t{{"a", attr(array{attr(array{attr(array{})})})},
                  {"b", attr(array{attr(table{})})},
                  {"c", attr(table{{"d", attr(bytes{})}})}};
    EXPECT_EQ(to_json(t), R"({"a":[[[]]],"b":[{}],"c":{"d":null}})");
    EXPECT_EQ(to_json(t, json_layout::indented), "{\n"
                                                 "\t\"a\": [\n"
                                                 "\t\t[\n"
                                                 "\t\t\t[\n"
                                                 "\t\t\t\t\n"
                                                 "\t\t\t]\n"
                                                 "\t\t]\n"
                                                 "\t],\n"
                                                 "\t\"b\": [\n"
                                                 "\t\t{\n"
                                                 "\t\t\t\n"
                                                 "\t\t}\n"
                                                 "\t],\n"
                                                 "\t\"c\": {\n"
                                                 "\t\t\"d\": null\n"
                                                 "\t}\n"
                                                 "}");
    EXPECT_EQ(to_json(attr(array{attr(1), attr("two")}), json_layout::indented),
              "[\n\t1,\n\t\"two\"\n]");
}

TEST(json, indents_at_most_sixteen_tabs) {
    // 17 arrays inside the top object: levels up to 18.
    attr nested = array{};
    for (int i = 1; i < 17; ++i) {
        nested = array{nested};
    }
    const std::vector<int> tabs_per_line = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                            13, 14, 15, 16, 16, 16, 16, 16, 15, 14, 13, 12, 11,
                                            10, 9,  8,  7,  6,  5,  4,  3,  2,  1,  0};
    std::vector<int> tabs;
    const std::string out = to_json(table{{"a", nested}}, json_layout::indented);
    for (std::size_t start = 0; start <= out.size();) {
        std::size_t end = out.find('\n', start);
        if (end == std::string::npos) {
            end = out.size();
        }
        const std::string line = out.substr(start, end - start);
        const auto first_other = line.find_first_not_of('\t');
        tabs.push_back(
            static_cast<int>(first_other == std::string::npos ? line.size() : first_other));
        start = end + 1;
    }
    EXPECT_EQ(tabs, tabs_per_line) << out;
}

TEST(json, formats_each_wire_value_as_the_device_tool_does) {
    const struct {
        int type;
        const char* value;
        const char* printed;
    } cases[] = {
        {BLOBMSG_TYPE_INT8, "00", "false"},
        {BLOBMSG_TYPE_INT8, "01", "true"},
        {BLOBMSG_TYPE_INT8, "ff", "true"},
        {BLOBMSG_TYPE_INT16, "ff ff", "-1"},
        {BLOBMSG_TYPE_INT16, "7f ff", "32767"},
        {BLOBMSG_TYPE_INT32, "ff ff ff ff", "-1"},
        {BLOBMSG_TYPE_INT32, "80 00 00 00", "-2147483648"},
        {BLOBMSG_TYPE_INT64, "ff ff ff ff ff ff ff ff", "-1"},
        {BLOBMSG_TYPE_INT64, "7f ff ff ff ff ff ff ff", "9223372036854775807"},
        {BLOBMSG_TYPE_INT64, "80 00 00 00 00 00 00 00", "-9223372036854775808"},
        {BLOBMSG_TYPE_DOUBLE, "3f f8 00 00 00 00 00 00", "1.500000"},
        {BLOBMSG_TYPE_DOUBLE, "3f f8 00 00 00 00 00 00 de ad be ef", "1.500000"},
        {BLOBMSG_TYPE_DOUBLE, "3e 7a d7 f2 9a bc af 48", "0.000000"}, // 1e-7
        {BLOBMSG_TYPE_DOUBLE, "80 00 00 00 00 00 00 00", "-0.000000"},
        {BLOBMSG_TYPE_DOUBLE, "44 15 af 1d 78 b5 8c 40", "100000000000000000000.000000"},
        {BLOBMSG_TYPE_DOUBLE, "7f e1 cc f3 85 eb c8 a0", // 1e308
         "100000000000000001097906362944045541740492309677311846336810682903157585404911491537163"
         "328978494688899061249669721172515611590283743140088328307009198146046031271664502933027"
         "185697489699588559043338384466165001178426897626212945177628091195786707458122783970171"
         "784415105291802893207873272974885715430223118336.000000"},
        {BLOBMSG_TYPE_DOUBLE, "7f f0 00 00 00 00 00 00", "inf"},
        {BLOBMSG_TYPE_DOUBLE, "ff f0 00 00 00 00 00 00", "-inf"},
        {BLOBMSG_TYPE_DOUBLE, "7f f8 00 00 00 00 00 00", "nan"},
        {BLOBMSG_TYPE_DOUBLE, "ff f8 00 00 00 00 00 00", "-nan"},
        {BLOBMSG_TYPE_UNSPEC, "", "null"},
        {BLOBMSG_TYPE_UNSPEC, "01 02 03", "null"},
        {BLOBMSG_TYPE_STRING, "00", R"("")"},
        // " \ BS LF CR TAB FF 01 1f 7f / é, an invalid UTF-8 byte
        {BLOBMSG_TYPE_STRING, "22 5c 08 0a 0d 09 0c 01 1f 7f 2f c3 a9 ff 00",
         "\"\\\"\\\\\\b\\n\\r\\t\\u000c\\u0001\\u001f\x7f/\xc3\xa9\xff\""},
        // A string ends at its first NUL.
        {BLOBMSG_TYPE_STRING, "61 62 00 63 00", R"("ab")"},
    };
    for (const auto& c : cases) {
        message m;
        m.add(c.type, "v", c.value);
        EXPECT_EQ(compact(m), std::string("{\"v\":") + c.printed + "}") << c.value;
    }
}

TEST(json, leaves_out_empty_keys_and_invalid_members_but_not_their_separators) {
    const struct {
        const char* first; // name of a valid INT32 member before, if any
        int type;
        const char* name;
        const char* value;
        const char* compact;
        const char* indented;
    } cases[] = {
        {"", BLOBMSG_TYPE_STRING, "x", "00", R"({5,"x":""})", "{\n\t5,\n\t\"x\": \"\"\n}"},
        {nullptr, BLOBMSG_TYPE_STRING, "", "6e 6f 6e 61 6d 65 00", R"({"noname"})",
         "{\n\t\"noname\"\n}"},
        {"k\"\n", BLOBMSG_TYPE_INT32, "v", "00 00 00 08 00 00 00 01", R"({"k\"\n":5,})",
         "{\n\t\"k\\\"\\n\": 5,\n\t\n}"},
        {nullptr, BLOBMSG_TYPE_INT32, "v", "00 00 00 01 00", "{}", "{\n\t\n}"},
        {"a", 9, "v", "00", R"({"a":5,})", "{\n\t\"a\": 5,\n\t\n}"},
        {nullptr, BLOBMSG_TYPE_STRING, "v", "61", "{}", "{\n\t\n}"},
        {nullptr, BLOBMSG_TYPE_STRING, "v", "", "{}", "{\n\t\n}"},
        {nullptr, BLOBMSG_TYPE_BOOL, "v", "01 01", "{}", "{\n\t\n}"},
    };
    for (const auto& c : cases) {
        message m;
        if (c.first) {
            blobmsg_add_u32(&m.buf, c.first, 5);
        }
        m.add(c.type, c.name, c.value);
        EXPECT_EQ(compact(m), c.compact) << c.value;
        EXPECT_EQ(indented(m), c.indented) << c.value;
    }

    // A DATA attribute holding plain attributes (an OBJID and a METHOD "add"): no valid member.
    message_blob data("03 00 00 08 00 00 00 03 | 04 00 00 08 61 64 64 00");
    EXPECT_EQ(to_json(data.head()), "{,}");
    EXPECT_EQ(to_json(data.head(), json_layout::indented), "{\n\t,\n\t\n}");

    // A member running past its container ends the list, as the device tool reads it.
    message_blob cut("85 00 00 0c 00 01 61 00 00 00 00 01 | 85 00 00 40 00 01 62 00");
    EXPECT_EQ(to_json(cut.head()), R"({"a":1})");
}

TEST(json, prints_containers_deeper_than_the_decoder_accepts_as_nothing) {
    // What the bus sends must not make the printer recurse until the stack runs out.
    message m;
    std::vector<void*> opened;
    for (int i = 0; i < 100000; ++i) {
        opened.push_back(blobmsg_open_array(&m.buf, "a"));
    }
    for (auto it = opened.rbegin(); it != opened.rend(); ++it) {
        blobmsg_close_array(&m.buf, *it);
    }
    const std::string out = compact(m);
    EXPECT_EQ(std::count(out.begin(), out.end(), '['), 1023);
    EXPECT_EQ(std::count(out.begin(), out.end(), ']'), 1023);
}

TEST(json, prints_a_blobmsg_field_as_its_value) {
    message m;
    void* t = blobmsg_open_table(&m.buf, "t");
    blobmsg_add_u32(&m.buf, "x", 5);
    blobmsg_add_string(&m.buf, "s", "hi");
    blobmsg_close_table(&m.buf, t);
    void* a = blobmsg_open_array(&m.buf, "arr");
    blobmsg_add_u32(&m.buf, nullptr, 1);
    blobmsg_add_u8(&m.buf, nullptr, 1);
    blobmsg_close_array(&m.buf, a);
    blobmsg_add_string(&m.buf, "text", "x");
    m.add(BLOBMSG_TYPE_INT32, "bad", "00 00 01");
    const auto* table_field = static_cast<const blob_attr*>(blob_data(m.buf.head));
    const auto* array_field = blob_next(table_field);
    const auto* text_field = blob_next(array_field);
    EXPECT_EQ(to_json(table_field), R"({"x":5,"s":"hi"})");
    EXPECT_EQ(to_json(array_field), "[1,true]");
    EXPECT_EQ(to_json(array_field, json_layout::indented), "[\n\t1,\n\ttrue\n]");
    EXPECT_EQ(to_json(text_field), R"("x")");
    EXPECT_EQ(to_json(blob_next(text_field)), "");
    EXPECT_EQ(to_json(static_cast<const blob_attr*>(nullptr)), "");
}

TEST(json, prints_int32_values_as_the_text_given_for_them) {
    message m;
    blobmsg_add_u32(&m.buf, "a", 3);
    void* t = blobmsg_open_table(&m.buf, "t");
    blobmsg_add_u32(&m.buf, "b", static_cast<std::uint32_t>(-7));
    blobmsg_add_u16(&m.buf, "c", 4);
    blobmsg_close_table(&m.buf, t);
    const auto text = [](std::int32_t value) { return "<" + std::to_string(value) + "\">"; };
    EXPECT_EQ(to_json(m.buf.head, json_layout::compact, text),
              R"({"a":"<3\">","t":{"b":"<-7\">","c":4}})");
}

} // namespace
