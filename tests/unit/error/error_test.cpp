#include <orvix/error.h>

#include <orvix_testing/ubus_status.h>

#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <vector>

namespace {

using orvix::error::generic;
using orvix::error::generic_category;
using orvix::error::msg;
using orvix::error::msg_category;

TEST(error_category, msg_values_and_texts_follow_ubus_status) {
    const std::vector<msg> values{
        msg::success,       msg::invalid_command, msg::invalid_argument,  msg::method_not_found,
        msg::not_found,     msg::no_data,         msg::permission_denied, msg::timeout,
        msg::not_supported, msg::unknown_error,   msg::connection_failed, msg::no_memory,
        msg::parse_error,   msg::system_error};
    for (int i = 0; i < 14; ++i) {
        const std::error_code ec = values[i];
        EXPECT_EQ(ec.value(), i);
        EXPECT_EQ(&ec.category(), &msg_category::get_inst());
        EXPECT_EQ(ec.message(), orvix_testing::ubus_status_texts[i]);
    }
    EXPECT_STREQ(make_error_code(msg::timeout).category().name(), "orvix::error::msg");
}

TEST(error_category, generic_values_and_texts) {
    const std::error_code aborted = generic::aborted;
    const std::error_code unknown = generic::unknown_error;
    EXPECT_EQ(aborted.value(), 1);
    EXPECT_EQ(aborted.message(), "Aborted");
    EXPECT_EQ(unknown.value(), 2);
    EXPECT_EQ(unknown.message(), "Unknown error");
    EXPECT_EQ(&aborted.category(), &generic_category::get_inst());
    EXPECT_STREQ(aborted.category().name(), "orvix::error::generic");
}

TEST(error_category, both_share_the_misspelt_fallback_text) {
    EXPECT_EQ(msg_category::get_inst().message(42), "Unknonw error condition");
    EXPECT_EQ(msg_category::get_inst().message(-1), "Unknonw error condition");
    EXPECT_EQ(generic_category::get_inst().message(0), "Unknonw error condition");
    EXPECT_EQ(generic_category::get_inst().message(3), "Unknonw error condition");
}

TEST(error_category, success_is_false_and_categories_stay_apart) {
    const std::error_code ok = msg::success;
    EXPECT_FALSE(ok);
    EXPECT_NE(ok, std::error_code());
    EXPECT_NE(make_error_code(msg::invalid_command), make_error_code(generic::aborted));
    EXPECT_NE(make_error_code(msg::timeout), std::make_error_code(std::errc::timed_out));
}

} // namespace
