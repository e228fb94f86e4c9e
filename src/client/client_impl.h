#pragma once

#include <system_error>

namespace orvix {

/// The bus client. For now it holds the mapping between ubus statuses and error codes.
class client_impl {
public:
    /// A ubus status as an error code of the msg category (value 9 for unknown ones).
    static std::error_code to_msg_error(int status);

    /// An error code as the ubus status sent back on the bus.
    static int to_ubus_msg_status(const std::error_code& ec);
};

} // namespace orvix
