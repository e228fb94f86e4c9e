#include "json_mapping.h"

#include <orvix/blob/attr.h>

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeindex>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;
using orvix::tool::json_layout;
using orvix::tool::parse_table;
using orvix::tool::to_json_text;
using bytes = std::vector<unsigned char>;

// How one value prints, taken from the compact `{"v":<value>}`.
std::string printed(const attr& value) {
    const std::string text = to_json_text(table{{"v", value}}, json_layout::compact);
    return text.substr(5, text.size() - 6);
}

TEST(json_mapping, each_json_value_becomes_its_kind_as_the_ubus_tool_maps_it) {
    const struct {
        const char* json;
        std::type_index kind;
        const char* back;
    } cases[] = {
        {"2147483647", typeid(unsigned int), "2147483647"},
        {"-2147483648", typeid(unsigned int), "-2147483648"},
        {"2147483648", typeid(unsigned long long), "2147483648"},
        {"-2147483649", typeid(unsigned long long), "-2147483649"},
        {"18446744073709551615", typeid(unsigned long long), "9223372036854775807"},
        {"1.0", typeid(double), "1.000000"},
        {"-2e3", typeid(double), "-2000.000000"},
        {"true", typeid(bool), "true"},
        {R"("a\"\u00e9")", typeid(std::string), "\"a\\\"\xc3\xa9\""},
        {"null", typeid(bytes), "null"},
        {R"([1, "two", [], {"x": {"s": "hi"}}])", typeid(array),
         R"([1,"two",[],{"x":{"s":"hi"}}])"},
    };
    for (const auto& c : cases) {
        const table parsed = parse_table(std::string("{\"v\": ") + c.json + "}");
        ASSERT_EQ(parsed.size(), 1u) << c.json;
        EXPECT_EQ(parsed.begin()->second.type(), c.kind) << c.json;
        EXPECT_EQ(printed(parsed.begin()->second), c.back) << c.json;
    }
}

TEST(json_mapping, only_json_objects_are_accepted) {
    EXPECT_TRUE(parse_table("{}").empty());
    for (const char* text : {"[]", "1", "\"x\"", "null", "", "{", "{'a': 1}", "{} x"}) {
        EXPECT_THROW(parse_table(text), std::invalid_argument) << text;
    }
    try {
        orvix::tool::to_table(nlohmann::json::array());
        FAIL() << "an array was accepted";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "the arguments must be a JSON object (got array)");
    }
}

TEST(json_mapping, values_print_as_the_ubus_tool_prints_them) {
    const struct {
        attr value;
        const char* text;
    } cases[] = {
        {static_cast<unsigned short>(65535), "-1"},
        {0xffffffffu, "-1"},
        {18446744073709551615ULL, "-1"},
        {-9000000000LL, "-9000000000"},
        {static_cast<unsigned char>(7), "true"},
        {false, "false"},
        {2.25, "2.250000"},
        {0.1, "0.100000"},
        {-1e20, "-100000000000000000000.000000"},
        {"\"q\"\\ a\nb\tc", R"("\"q\"\\ a\nb\tc")"},
        {"\x01\x1f\r", R"("\u0001\u001f\u000d")"},
        {"/ \xc3\xa9 \x7f", "\"/ \xc3\xa9 \x7f\""},
        {std::string("cut\0here", 8), R"("cut")"},
        {bytes{1, 2}, "null"},
        {attr(), "null"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printed(c.value), c.text) << c.text;
    }
}

TEST(json_mapping, members_go_one_per_line_indented_by_depth_or_all_on_one_line) {
    EXPECT_EQ(to_json_text(table{}, json_layout::indented), "{\n\t\n}");
    EXPECT_EQ(to_json_text(table{}, json_layout::compact), "{}");
    table t{{"method", "echo"}, {"l", array{1, table{}}}};
    t.emplace("method", 2);
    EXPECT_EQ(to_json_text(t, json_layout::indented),
              "{\n\t\"l\": [\n\t\t1,\n\t\t{\n\t\t\t\n\t\t}\n\t],\n"
              "\t\"method\": \"echo\",\n\t\"method\": 2\n}");
    EXPECT_EQ(to_json_text(t, json_layout::compact), R"({"l":[1,{}],"method":"echo","method":2})");
    // A member without a name prints its value alone.
    EXPECT_EQ(to_json_text(table{{"", 1}, {"b", 2}}, json_layout::compact), R"({1,"b":2})");
}

} // namespace
