#include "json_mapping.h"

#include <orvix/blob/attr.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;
using orvix::tool::json_layout;
using orvix::tool::to_json_text;

std::string indented(const table& t) {
    return to_json_text(t, json_layout::indented);
}

std::string compact(const table& t) {
    return to_json_text(t, json_layout::compact);
}

// How one value prints, taken from the compact `{"v":<value>}`.
std::string printed(const attr& value) {
    const std::string text = compact(table{{"v", value}});
    return text.substr(5, text.size() - 6);
}

TEST(table_to_json, members_go_one_per_line_indented_by_depth_or_all_on_one_line) {
    EXPECT_EQ(indented(table{}), "{\n\t\n}");
    EXPECT_EQ(compact(table{}), "{}");

    table t{{"method", attr("echo")}, {"l", attr(array{attr(1), attr(table{})})}};
    t.emplace("method", attr(2));
    EXPECT_EQ(indented(t), "{\n\t\"l\": [\n\t\t1,\n\t\t{\n\t\t\t\n\t\t}\n\t],\n"
                           "\t\"method\": \"echo\",\n\t\"method\": 2\n}");
    EXPECT_EQ(compact(t), R"({"l":[1,{}],"method":"echo","method":2})");
}

TEST(table_to_json, numbers_print_as_the_ubus_tool_prints_them) {
    EXPECT_EQ(printed(attr(static_cast<unsigned short>(65535))), "-1");
    EXPECT_EQ(printed(attr(0xffffffffu)), "-1");
    EXPECT_EQ(printed(attr(18446744073709551615ULL)), "-1");
    EXPECT_EQ(printed(attr(-9000000000LL)), "-9000000000");
    EXPECT_EQ(printed(attr(static_cast<unsigned char>(7))), "true");
    EXPECT_EQ(printed(attr(false)), "false");
    EXPECT_EQ(printed(attr(2.25)), "2.250000");
    EXPECT_EQ(printed(attr(0.1)), "0.100000");
    EXPECT_EQ(printed(attr(-1e20)), "-100000000000000000000.000000");
}

TEST(table_to_json, strings_escape_quotes_backslashes_and_control_bytes_up_to_a_nul) {
    EXPECT_EQ(printed(attr("\"q\"\\ a\nb\tc")), R"("\"q\"\\ a\nb\tc")");
    EXPECT_EQ(printed(attr("\x01\x1f\r")), R"("\u0001\u001f\u000d")");
    EXPECT_EQ(printed(attr("/ \xc3\xa9 \x7f")), "\"/ \xc3\xa9 \x7f\"");
    EXPECT_EQ(printed(attr(std::string("cut\0here", 8))), R"("cut")");
}

TEST(table_to_json, byte_vectors_and_empty_values_print_as_null) {
    EXPECT_EQ(printed(attr(std::vector<unsigned char>{1, 2})), "null");
    EXPECT_EQ(printed(attr()), "null");
}

TEST(table_to_json, a_member_without_a_name_prints_its_value_alone) {
    EXPECT_EQ(compact(table{{"", attr(1)}, {"b", attr(2)}}), R"({1,"b":2})");
}

} // namespace
