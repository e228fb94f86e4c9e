#pragma once

#include <system_error>

namespace orvix {
namespace error {

/// The error code for a status that libubus reports: the status itself in the message
/// category when it has a meaning of its own, else "Unknown error".
std::error_code from_ubus_status(int status);

/// The status sent on the bus for the outcome of a served call: 0 for any success, the
/// value of a message-category code that has a meaning of its own, else 9.
int to_ubus_status(const std::error_code& ec);

} // namespace error
} // namespace orvix
