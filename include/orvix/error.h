#pragma once

#include <string>
#include <system_error>
#include <type_traits>

namespace orvix {
namespace error {

/// ubus status codes, numbered value for value as libubus's enum ubus_msg_status.
enum class msg {
    success = 0,
    invalid_command = 1,
    invalid_argument = 2,
    method_not_found = 3,
    not_found = 4,
    no_data = 5,
    permission_denied = 6,
    timeout = 7,
    not_supported = 8,
    unknown_error = 9,
    connection_failed = 10,
    no_memory = 11,
    parse_error = 12,
    system_error = 13,
};

/// Outcomes that arise inside the library rather than on the bus.
enum class generic {
    aborted = 1,
    unknown_error = 2,
};

class msg_category : public std::error_category {
public:
    ~msg_category() override;
    const char* name() const noexcept override;
    std::string message(int value) const override;

    static const msg_category& get_inst();

private:
    msg_category() = default;
};

class generic_category : public std::error_category {
public:
    ~generic_category() override;
    const char* name() const noexcept override;
    std::string message(int value) const override;

    static const generic_category& get_inst();

private:
    generic_category() = default;
};

std::error_code make_error_code(msg e);
std::error_code make_error_code(generic e);

} // namespace error
} // namespace orvix

namespace std {

template <>
struct is_error_code_enum<orvix::error::msg> : true_type {};

template <>
struct is_error_code_enum<orvix::error::generic> : true_type {};

} // namespace std
