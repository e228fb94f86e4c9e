#include "client/client_impl.h"

#include <orvix/error.h>

namespace orvix {

namespace {

// Statuses that have their own meaning; 9 is the catch-all "unknown error".
bool is_specific_status(int status) {
    return status >= static_cast<int>(error::msg::success) &&
           status <= static_cast<int>(error::msg::system_error) &&
           status != static_cast<int>(error::msg::unknown_error);
}

} // namespace

std::error_code client_impl::to_msg_error(int status) {
    if (is_specific_status(status)) {
        return error::make_error_code(static_cast<error::msg>(status));
    }
    return error::make_error_code(error::msg::unknown_error);
}

int client_impl::to_ubus_msg_status(const std::error_code& ec) {
    if (ec.value() == 0) {
        return static_cast<int>(error::msg::success);
    }
    if (ec.category() != error::msg_category::get_inst() || !is_specific_status(ec.value())) {
        return static_cast<int>(error::msg::unknown_error);
    }
    return ec.value();
}

} // namespace orvix
