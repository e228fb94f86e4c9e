// libubox defines a __constructor macro that breaks <cxxabi.h>, which gtest
// includes; the standard and gtest headers therefore come before the bus headers.
#include <gtest/gtest.h>

#include <system_error>

#include <orvix/error.h>

#include "client/client_impl.h"

namespace {

using orvix::client_impl;
using orvix::error::generic;
using orvix::error::msg;
using orvix::error::msg_category;

TEST(to_msg_error, known_statuses_keep_their_value) {
    for (int status = 0; status <= 13; ++status) {
        const auto ec = client_impl::to_msg_error(status);
        EXPECT_EQ(ec.value(), status);
        EXPECT_EQ(ec.category(), msg_category::get_inst());
        EXPECT_EQ(client_impl::to_ubus_msg_status(ec), status);
    }
    EXPECT_FALSE(client_impl::to_msg_error(0));
    EXPECT_EQ(client_impl::to_msg_error(0).message(), "Success");
}

TEST(to_msg_error, anything_else_is_unknown_error) {
    for (int status : {-1, 14, 1000}) {
        EXPECT_EQ(client_impl::to_msg_error(status), make_error_code(msg::unknown_error));
    }
    EXPECT_EQ(client_impl::to_msg_error(-1).message(), "Unknown error");
}

TEST(to_ubus_msg_status, zero_of_any_category_is_ok) {
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::error_code()), 0);
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::error_code(0, std::generic_category())), 0);
}

TEST(to_ubus_msg_status, foreign_and_out_of_range_codes_are_unknown_error) {
    EXPECT_EQ(client_impl::to_ubus_msg_status(make_error_code(generic::aborted)), 9);
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::make_error_code(std::errc::timed_out)), 9);
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::error_code(7, std::system_category())), 9);
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::error_code(14, msg_category::get_inst())), 9);
    EXPECT_EQ(client_impl::to_ubus_msg_status(std::error_code(-3, msg_category::get_inst())), 9);
}

} // namespace
