#include <orvix_testing/blob.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json_input.h"
#include "json_output.h"

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

using orvix::tool::add_json_members;
using orvix::tool::format_json;
using orvix::tool::format_signature_method;
using orvix::tool::json_layout;
using orvix_testing::from_hex;

struct message {
    message() { blob_buf_init(&buf, 0); }
    ~message() { blob_buf_free(&buf); }
    message(const message&) = delete;
    message& operator=(const message&) = delete;

    // One member of any type and size, valid or not.
    void add(int type, const char* name, const char* hex_value) {
        const auto value = from_hex(hex_value);
        blobmsg_add_field(&buf, type, name, value.data(), static_cast<unsigned>(value.size()));
    }

    std::string compact() const { return format_json(buf.head, false, json_layout::compact); }
    std::string indented() const { return format_json(buf.head, false, json_layout::indented); }

    blob_buf buf{};
};

TEST(json_output, prints_indented_with_tabs_and_compact_without_blanks) {
    const char* const text = R"({"a":[[[]]],"b":[{}],"c":{"d":null}})";
    message m;
    ASSERT_TRUE(add_json_members(&m.buf, text));
    EXPECT_EQ(m.compact(), text);
    EXPECT_EQ(m.indented(), "{\n"
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

    message empty;
    EXPECT_EQ(empty.compact(), "{}");
    EXPECT_EQ(empty.indented(), "{\n\t\n}");
}

TEST(json_output, indents_at_most_sixteen_tabs) {
    // 17 arrays inside the top object: levels up to 18.
    const std::string text = "{\"a\":" + std::string(17, '[') + std::string(17, ']') + "}";
    message m;
    ASSERT_TRUE(add_json_members(&m.buf, text));
    const std::vector<int> tabs_per_line = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                            13, 14, 15, 16, 16, 16, 16, 16, 15, 14, 13, 12, 11,
                                            10, 9,  8,  7,  6,  5,  4,  3,  2,  1,  0};
    std::vector<int> tabs;
    const std::string out = m.indented();
    for (std::size_t start = 0; start <= out.size();) {
        std::size_t end = out.find('\n', start);
        if (end == std::string::npos)
            end = out.size();
        const std::string line = out.substr(start, end - start);
        tabs.push_back(static_cast<int>(line.find_first_not_of('\t') == std::string::npos
                                            ? line.size()
                                            : line.find_first_not_of('\t')));
        start = end + 1;
    }
    EXPECT_EQ(tabs, tabs_per_line) << out;
}

TEST(json_output, formats_each_value_as_the_device_tool_does) {
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
        EXPECT_EQ(m.compact(), std::string("{\"v\":") + c.printed + "}") << c.value;
    }
}

TEST(json_output, leaves_out_empty_keys_and_invalid_members_but_not_their_separators) {
    const struct {
        const char* json;
        int type;
        const char* name;
        const char* value;
        const char* compact;
        const char* indented;
    } cases[] = {
        {R"({"":5})", BLOBMSG_TYPE_STRING, "x", "00", R"({5,"x":""})", "{\n\t5,\n\t\"x\": \"\"\n}"},
        {"{}", BLOBMSG_TYPE_STRING, "", "6e 6f 6e 61 6d 65 00", R"({"noname"})",
         "{\n\t\"noname\"\n}"},
        {R"({"k\"\n":1})", BLOBMSG_TYPE_INT32, "v", "00 00 00 08 00 00 00 01", R"({"k\"\n":1,})",
         "{\n\t\"k\\\"\\n\": 1,\n\t\n}"},
        {"{}", BLOBMSG_TYPE_INT32, "v", "00 00 00 01 00", "{}", "{\n\t\n}"},
        {R"({"a":1})", 9, "v", "00", R"({"a":1,})", "{\n\t\"a\": 1,\n\t\n}"},
        {"{}", BLOBMSG_TYPE_STRING, "v", "61", "{}", "{\n\t\n}"},
        {"{}", BLOBMSG_TYPE_STRING, "v", "", "{}", "{\n\t\n}"},
        {"{}", BLOBMSG_TYPE_BOOL, "v", "01 01", "{}", "{\n\t\n}"},
    };
    for (const auto& c : cases) {
        message m;
        ASSERT_TRUE(add_json_members(&m.buf, c.json));
        m.add(c.type, c.name, c.value);
        EXPECT_EQ(m.compact(), c.compact) << c.json << " + " << c.value;
        EXPECT_EQ(m.indented(), c.indented) << c.json << " + " << c.value;
    }

    // A DATA attribute holding plain attributes (an OBJID and a METHOD "add"): no valid member.
    orvix_testing::message_blob data("03 00 00 08 00 00 00 03 | 04 00 00 08 61 64 64 00");
    EXPECT_EQ(format_json(data.head(), false, json_layout::compact), "{,}");
    EXPECT_EQ(format_json(data.head(), false, json_layout::indented), "{\n\t,\n\t\n}");

    // A member running past its container ends the list, as the device tool reads it.
    orvix_testing::message_blob cut(
        "85 00 00 0c 00 01 61 00 00 00 00 01 | 85 00 00 40 00 01 62 00");
    EXPECT_EQ(format_json(cut.head(), false, json_layout::compact), R"({"a":1})");
}

TEST(json_output, prints_blobmsg_tables_and_arrays_as_their_contents) {
    message m;
    ASSERT_TRUE(add_json_members(&m.buf, R"({"t":{"x":5,"in":{"s":"hi"}},"arr":[1,"two",true]})"));
    const auto* table = static_cast<const blob_attr*>(blob_data(m.buf.head));
    const auto* array = blob_next(table);
    EXPECT_EQ(format_json(table, false, json_layout::compact), R"({"x":5,"in":{"s":"hi"}})");
    EXPECT_EQ(format_json(array, true, json_layout::compact), R"([1,"two",true])");
    EXPECT_EQ(format_json(array, true, json_layout::indented), "[\n\t1,\n\t\"two\",\n\ttrue\n]");
    // Keys are a table's: as an array, the same members print without them.
    EXPECT_EQ(format_json(table, true, json_layout::compact), R"([5,{"s":"hi"}])");
}

TEST(json_output, lists_a_signature_method_with_type_names_for_integers) {
    const struct {
        const char* signature;
        std::vector<std::string> methods;
    } cases[] = {
        {R"({"echo":{"id":5,"msg":3},"empty":{}})",
         {R"("echo":{"id":"Integer","msg":"String"})", R"("empty":{})"}},
        {R"({"alltypes":{"u":0,"a":1,"t":2,"s":3,"i64":4,"i32":5,"i16":6,"b":7,"d":8,"c64":9}})",
         {R"j("alltypes":{"u":"(unknown)","a":"Array","t":"Table","s":"String","i64":"(unknown)",)j"
          R"j("i32":"Integer","i16":"(unknown)","b":"Boolean","d":"(unknown)","c64":"(unknown)"})j"}},
        {R"({"intm":5,"strm":"x","tm":{"a":{"b":5},"c":99,"d":"y"},"arrm":[3]})",
         {R"("intm":"Integer")", R"("strm":"x")",
          R"j("tm":{"a":{"b":"Integer"},"c":"(unknown)","d":"y"})j", R"("arrm":["String"])"}},
        {R"({"m":{"neg":-1,"big":4294967296,"f":true,"n":null,"r":1.5,"":2}})",
         {R"j("m":{"neg":"(unknown)","big":4294967296,"f":true,"n":null,"r":1.500000,"Table"})j"}},
    };
    for (const auto& c : cases) {
        message m;
        ASSERT_TRUE(add_json_members(&m.buf, c.signature));
        std::vector<std::string> methods;
        const blob_attr* method;
        std::size_t rest;
        blobmsg_for_each_attr(method, m.buf.head, rest) {
            methods.push_back(format_signature_method(method));
        }
        EXPECT_EQ(methods, c.methods) << c.signature;
    }

    message invalid;
    invalid.add(BLOBMSG_TYPE_INT32, "m", "00 00 00 05 00");
    EXPECT_EQ(format_signature_method(static_cast<const blob_attr*>(blob_data(invalid.buf.head))),
              "");
}

} // namespace
