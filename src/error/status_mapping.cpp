#include "error/status_mapping.h"

#include <orvix/error.h>

namespace orvix {
namespace error {

namespace {

// Statuses that have their own meaning; 9 is the catch-all "unknown error".
bool is_specific_status(int status) {
    return status >= static_cast<int>(msg::success) &&
           status <= static_cast<int>(msg::system_error) &&
           status != static_cast<int>(msg::unknown_error);
}

} // namespace

std::error_code from_ubus_status(int status) {
    if (is_specific_status(status)) {
        return make_error_code(static_cast<msg>(status));
    }
    return make_error_code(msg::unknown_error);
}

int to_ubus_status(const std::error_code& ec) {
    if (ec.value() == 0) {
        return static_cast<int>(msg::success);
    }
    if (ec.category() != msg_category::get_inst() || !is_specific_status(ec.value())) {
        return static_cast<int>(msg::unknown_error);
    }
    return ec.value();
}

} // namespace error
} // namespace orvix
