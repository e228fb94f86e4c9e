// What ubus calls each status, indexed by its value (UBUS_STATUS_OK first): libubus's
// ubus_strerror and the library's error texts both say exactly this.
#pragma once

#include <array>

namespace orvix_testing {

inline constexpr std::array<const char*, 14> ubus_status_texts = {"Success",
                                                                  "Invalid command",
                                                                  "Invalid argument",
                                                                  "Method not found",
                                                                  "Not found",
                                                                  "No response",
                                                                  "Permission denied",
                                                                  "Request timed out",
                                                                  "Operation not supported",
                                                                  "Unknown error",
                                                                  "Connection failed",
                                                                  "Out of memory",
                                                                  "Parsing message data failed",
                                                                  "System error"};

} // namespace orvix_testing
