#include <gtest/gtest.h>

#include <system_error>
#include <utility>

#include <orvix/error.h>

#include "error/status_mapping.h"

namespace {

using orvix::error::from_ubus_status;
using orvix::error::msg;
using orvix::error::msg_category;
using orvix::error::to_ubus_status;

TEST(status_mapping, known_statuses_keep_their_value_both_ways) {
    for (int status = 0; status <= 13; ++status) {
        const auto ec = from_ubus_status(status);
        EXPECT_EQ(ec.value(), status);
        EXPECT_EQ(ec.category(), msg_category::get_inst());
        EXPECT_EQ(to_ubus_status(ec), status);
    }
    EXPECT_EQ(from_ubus_status(0).message(), "Success");
    for (int status : {-1, 14, 1000}) {
        EXPECT_EQ(from_ubus_status(status), make_error_code(msg::unknown_error)) << status;
    }
}

TEST(status_mapping, any_success_is_ok_and_anything_foreign_is_unknown_error) {
    const std::pair<std::error_code, int> cases[] = {
        {std::error_code(), 0},
        {std::error_code(0, std::generic_category()), 0},
        {make_error_code(orvix::error::generic::aborted), 9},
        {std::make_error_code(std::errc::timed_out), 9},
        {std::error_code(7, std::system_category()), 9},
        {std::error_code(14, msg_category::get_inst()), 9},
        {std::error_code(-3, msg_category::get_inst()), 9},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(to_ubus_status(c.first), c.second) << c.first.message();
    }
}

} // namespace
