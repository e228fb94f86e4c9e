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
using orvix::tool::parse_table;

// The value of "v" in the table parsed from `{"v": <json>}`.
attr value_of(const std::string& json) {
    const table parsed = parse_table("{\"v\": " + json + "}");
    EXPECT_EQ(parsed.size(), 1u);
    return parsed.begin()->second;
}

TEST(json_to_table, integers_fitting_32_bits_become_int_others_long_long) {
    EXPECT_EQ(value_of("2147483647").get<int>(), 2147483647);
    EXPECT_EQ(value_of("-2147483648").get<int>(), -2147483647 - 1);
    EXPECT_EQ(value_of("2147483648").get<long long>(), 2147483648LL);
    EXPECT_EQ(value_of("-2147483649").get<long long>(), -2147483649LL);
    EXPECT_EQ(value_of("18446744073709551615").get<long long>(), 9223372036854775807LL);
}

TEST(json_to_table, other_values_map_to_their_kinds) {
    EXPECT_EQ(value_of("1.0").get<double>(), 1.0);
    EXPECT_EQ(value_of("-2e3").get<double>(), -2000.0);
    EXPECT_TRUE(value_of("true").get<bool>());
    EXPECT_EQ(value_of(R"("a\"\u00e9")").get<std::string>(), "a\"\xc3\xa9");
    EXPECT_EQ(value_of("null").get<std::vector<unsigned char>>(), std::vector<unsigned char>{});

    const auto items = value_of(R"([1, "two", [], {"x": {"s": "hi"}}])").get<array>();
    ASSERT_EQ(items.size(), 4u);
    auto item = items.begin();
    EXPECT_EQ((item++)->get<int>(), 1);
    EXPECT_EQ((item++)->get<std::string>(), "two");
    EXPECT_TRUE((item++)->get<array>().empty());
    EXPECT_EQ(
        item->get<table>().find("x")->second.get<table>().find("s")->second.get<std::string>(),
        "hi");
}

TEST(json_to_table, only_json_objects_are_accepted) {
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

} // namespace
