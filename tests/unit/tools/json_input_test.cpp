#include <orvix_testing/blob.h>

#include <gtest/gtest.h>

#include <orvix/blob/json.h>

#include <cstddef>
#include <string>
#include <utility>

#include "json_input.h"

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

using orvix::blob::to_json;
using orvix::tool::add_json_members;

struct message {
    message() { blob_buf_init(&buf, 0); }
    ~message() { blob_buf_free(&buf); }
    message(const message&) = delete;
    message& operator=(const message&) = delete;

    blob_buf buf{};
};

// What `call -S` would echo for `text`; nullptr when the tool refuses it.
const char* const refused = nullptr;

std::string echoed(const std::string& text, bool& accepted) {
    message m;
    accepted = add_json_members(&m.buf, text);
    return accepted ? to_json(m.buf.head) : "";
}

TEST(json_input, reads_the_lenient_grammar_of_the_device_tool) {
    const struct {
        const char* text;
        const char* echo;
    } cases[] = {
        {"{}", "{}"},
        {" \n/* a */ // b\n{\"a\":1}", R"({"a":1})"},
        {"", refused},
        {"[1,2]", refused},
        {R"("s")", refused},
        {"1", refused},
        {"null", refused},
        {"true", refused},
        {"// only a comment", refused},
        // The first object is all that counts.
        {R"({"a":1}xyz)", R"({"a":1})"},
        {R"({"a":1} {"b":2})", R"({"a":1})"},
        {R"({"a":1}})", R"({"a":1})"},
        {R"({"a":1}{)", R"({"a":1})"},
        {R"({"a":1} /* never closed)", R"({"a":1})"},
        // Keys keep their order; a repeated key takes its last value at its first place.
        {R"({"z":1,"a":2,"m":3})", R"({"z":1,"a":2,"m":3})"},
        {R"({"a":1,"b":2,"a":3})", R"({"a":3,"b":2})"},
        {R"({"t":{"x":1},"u":0,"t":[2]})", R"({"t":[2],"u":0})"},
        {R"({"a\u0000x":1,"a":2})", R"({"a":2})"},
        {R"({"o":{"k":1,"k":2},"l":[1,1]})", R"({"o":{"k":2},"l":[1,1]})"},
        {R"({"":5,"x":""})", R"({5,"x":""})"},
        {"{'a':'b', \"c\":'say \"hi\"', 'd':\"it's\"}", R"({"a":"b","c":"say \"hi\"","d":"it's"})"},
        {R"({"a":[1,2,],"b":{"c":3,},})", R"({"a":[1,2],"b":{"c":3}})"},
        {"{/*x*/\"a\"/**/:/**/1//y\n,\"b\"://\n[ 2 /*z*/ ]}", R"({"a":1,"b":[2]})"},
        {"{\"a\":\"x\ty\"}", R"({"a":"x\ty"})"},
        {R"({"a":[[],{}],"b":[{"c":null}]})", R"({"a":[[],{}],"b":[{"c":null}]})"},
        {"{a:1}", refused},
        {R"({"a" 1})", refused},
        {R"({"a":1 "b":2})", refused},
        {R"({"a":[1 2]})", refused},
        {"{,}", refused},
        {R"({"a":[,]})", refused},
        {R"({"a":[1,,2]})", refused},
        {R"({"a":1,,})", refused},
        {R"({"a":1)", refused},
        {R"({"a":[1})", refused},
        {R"({"a":1 /* never closed})", refused},
        {R"({"a": / 1})", refused},
        {R"({"a":})", refused},
        {R"({1:2})", refused},
    };
    for (const auto& c : cases) {
        bool accepted = false;
        const std::string echo = echoed(c.text, accepted);
        EXPECT_EQ(accepted, c.echo != refused) << c.text;
        if (accepted && c.echo) {
            EXPECT_EQ(echo, c.echo) << c.text;
        }
    }
}

TEST(json_input, maps_each_value_to_the_blobmsg_type_the_device_tool_uses) {
    constexpr int failure = -1;
    const struct {
        const char* json;
        int type;
        const char* printed;
    } cases[] = {
        {"2147483647", BLOBMSG_TYPE_INT32, "2147483647"},
        {"-2147483648", BLOBMSG_TYPE_INT32, "-2147483648"},
        {"2147483648", BLOBMSG_TYPE_INT64, "2147483648"},
        {"-2147483649", BLOBMSG_TYPE_INT64, "-2147483649"},
        {"9223372036854775807", BLOBMSG_TYPE_INT64, "9223372036854775807"},
        {"9223372036854775808", BLOBMSG_TYPE_INT64, "9223372036854775807"},
        {"18446744073709551616", BLOBMSG_TYPE_INT64, "9223372036854775807"},
        {"99999999999999999999999", BLOBMSG_TYPE_INT64, "9223372036854775807"},
        {"-9223372036854775808", BLOBMSG_TYPE_INT64, "-9223372036854775808"},
        {"-9223372036854775809", BLOBMSG_TYPE_INT64, "-9223372036854775808"},
        {"-99999999999999999999999", BLOBMSG_TYPE_INT64, "-9223372036854775808"},
        {"-0", BLOBMSG_TYPE_INT32, "0"},
        {"01", BLOBMSG_TYPE_INT32, "1"},
        {"-01", BLOBMSG_TYPE_INT32, "-1"},
        {"1.0", BLOBMSG_TYPE_DOUBLE, "1.000000"},
        {"1e3", BLOBMSG_TYPE_DOUBLE, "1000.000000"},
        {"2.5E-1", BLOBMSG_TYPE_DOUBLE, "0.250000"},
        {"1e+2", BLOBMSG_TYPE_DOUBLE, "100.000000"},
        {"1.", BLOBMSG_TYPE_DOUBLE, "1.000000"},
        {"1e", BLOBMSG_TYPE_DOUBLE, "1.000000"},
        {"-0.0", BLOBMSG_TYPE_DOUBLE, "-0.000000"},
        {"1E400", BLOBMSG_TYPE_DOUBLE, "inf"},
        {"NaN", BLOBMSG_TYPE_DOUBLE, "nan"},
        {"nan", BLOBMSG_TYPE_DOUBLE, "nan"},
        {"Infinity", BLOBMSG_TYPE_DOUBLE, "inf"},
        {"infinity", BLOBMSG_TYPE_DOUBLE, "inf"},
        {"-Infinity", BLOBMSG_TYPE_DOUBLE, "-inf"},
        {"0x10", failure, nullptr},
        {"+1", failure, nullptr},
        {".5", failure, nullptr},
        {"-", failure, nullptr},
        {"1.5.5", failure, nullptr},
        {"-nan", failure, nullptr},
        {"Inf", failure, nullptr},
        {"true", BLOBMSG_TYPE_BOOL, "true"},
        {"True", BLOBMSG_TYPE_BOOL, "true"},
        {"tRuE", BLOBMSG_TYPE_BOOL, "true"},
        {"FALSE", BLOBMSG_TYPE_BOOL, "false"},
        {"Null", BLOBMSG_TYPE_UNSPEC, "null"},
        {"nul", failure, nullptr},
        {"truex", failure, nullptr},
        {R"("")", BLOBMSG_TYPE_STRING, R"("")"},
        {R"("\"\\\/\b\f\n\r\t")", BLOBMSG_TYPE_STRING, R"("\"\\/\b\u000c\n\r\t")"},
        {R"("\u0041\u00e9\u20AC")", BLOBMSG_TYPE_STRING, "\"A\xc3\xa9\xe2\x82\xac\""},
        {R"("\ud83d\ude00")", BLOBMSG_TYPE_STRING, "\"\xf0\x9f\x98\x80\""},
        {R"("\ud83d")", BLOBMSG_TYPE_STRING, "\"\xef\xbf\xbd\""},
        {R"("\ud83dx")", BLOBMSG_TYPE_STRING, "\"\xef\xbf\xbdx\""},
        {R"("\ude00\ud83d")", BLOBMSG_TYPE_STRING, "\"\xef\xbf\xbd\xef\xbf\xbd\""},
        {R"("\ud83d\u0041")", BLOBMSG_TYPE_STRING,
         "\"\xef\xbf\xbd"
         "A\""},
        {R"("\ud83d\ud83d\ude00")", BLOBMSG_TYPE_STRING, "\"\xef\xbf\xbd\xf0\x9f\x98\x80\""},
        {R"("a\u0000b")", BLOBMSG_TYPE_STRING, R"("a")"},
        {R"("\x41")", failure, nullptr},
        {R"("\q")", failure, nullptr},
        {R"("\u12")", failure, nullptr},
        {R"("\u12g4")", failure, nullptr},
        {R"("open)", failure, nullptr},
        {"'open", failure, nullptr},
        {"[]", BLOBMSG_TYPE_ARRAY, "[]"},
        {"{}", BLOBMSG_TYPE_TABLE, "{}"},
    };
    for (const auto& c : cases) {
        const std::string text = std::string("{\"v\":") + c.json + "}";
        message m;
        const bool accepted = add_json_members(&m.buf, text);
        EXPECT_EQ(accepted, c.type != failure) << text;
        if (!accepted || c.type == failure)
            continue;
        const auto* member = static_cast<const blob_attr*>(blob_data(m.buf.head));
        EXPECT_EQ(blobmsg_type(member), c.type) << text;
        EXPECT_EQ(to_json(m.buf.head), std::string("{\"v\":") + c.printed + "}") << text;
    }
}

TEST(json_input, allows_31_nested_containers_counting_the_top_object) {
    const auto nested = [](int arrays, int tables) {
        std::string text = "{\"a\":";
        text += std::string(static_cast<std::size_t>(arrays), '[');
        for (int i = 0; i < tables; ++i)
            text += "{\"t\":";
        text += "1";
        text += std::string(static_cast<std::size_t>(tables), '}');
        text += std::string(static_cast<std::size_t>(arrays), ']');
        return text + "}";
    };
    for (const auto& c : {std::make_pair(30, 0), std::make_pair(0, 30), std::make_pair(15, 15)}) {
        const std::string text = nested(c.first, c.second);
        bool accepted = false;
        EXPECT_EQ(echoed(text, accepted), text);
        EXPECT_TRUE(accepted) << text;
        echoed(nested(c.first + 1, c.second), accepted);
        EXPECT_FALSE(accepted) << text;
        echoed(nested(c.first, c.second + 1), accepted);
        EXPECT_FALSE(accepted) << text;
    }
}

TEST(json_input, writes_the_blobmsg_encoding_into_the_open_container) {
    const struct {
        const char* json;
        const char* hex;
    } cases[] = {
        {R"({"a":1,"b":"x"})", "00 00 00 1c | 85 00 00 0c 00 01 61 00 00 00 00 01"
                               "| 83 00 00 0a 00 01 62 00 78 00 00 00"},
        {R"({"arr":[1,"two",true]})",
         "00 00 00 34 | 81 00 00 30 00 03 61 72 72 00 00 00 | 85 00 00 0c 00 00 00 00 00 00 00 01"
         "| 83 00 00 0c 00 00 00 00 74 77 6f 00 | 87 00 00 09 00 00 00 00 01 00 00 00"},
        {R"({"t":{"x":5,"in":{"s":"hi"}}})",
         "00 00 00 30 | 82 00 00 2c 00 01 74 00 | 85 00 00 0c 00 01 78 00 00 00 00 05"
         "| 82 00 00 18 00 02 69 6e 00 00 00 00 | 83 00 00 0b 00 01 73 00 68 69 00 00"},
        {R"({"flag":true})", "00 00 00 14 | 87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00"},
        {R"({"d":1.5})", "00 00 00 14 | 88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00"},
        {R"({"big":72623859790382856})",
         "00 00 00 18 | 84 00 00 14 00 03 62 69 67 00 00 00 01 02 03 04 05 06 07 08"},
        {R"({"n":null})", "00 00 00 0c | 80 00 00 08 00 01 6e 00"},
        {R"({"":{},"e":[]})", "00 00 00 14 | 82 00 00 08 00 00 00 00 | 81 00 00 08 00 01 65 00"},
    };
    for (const auto& c : cases) {
        message m;
        ASSERT_TRUE(add_json_members(&m.buf, c.json)) << c.json;
        EXPECT_EQ(orvix_testing::to_hex(m.buf), orvix_testing::normalized_hex(c.hex)) << c.json;
    }

    // Members join whatever container the caller has open; a refused text adds nothing.
    message m;
    void* data = blob_nest_start(&m.buf, 7);
    EXPECT_FALSE(add_json_members(&m.buf, R"({"a":1,"b":})"));
    ASSERT_TRUE(add_json_members(&m.buf, R"({"a":1})"));
    blob_nest_end(&m.buf, data);
    EXPECT_EQ(orvix_testing::to_hex(m.buf),
              orvix_testing::normalized_hex("00 00 00 14 | 07 00 00 10 | 85 00 00 0c 00 01 61 00 "
                                            "00 00 00 01"));
}

} // namespace
