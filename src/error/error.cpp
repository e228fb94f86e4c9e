#include <orvix/error.h>

namespace orvix {
namespace error {

namespace {

// Shared by both categories; the spelling is part of the interface.
const char* const unknown_condition = "Unknonw error condition";

} // namespace

msg_category::~msg_category() = default;

const char* msg_category::name() const noexcept {
    return "orvix::error::msg";
}

std::string msg_category::message(int value) const {
    switch (static_cast<msg>(value)) {
    case msg::success:
        return "Success";
    case msg::invalid_command:
        return "Invalid command";
    case msg::invalid_argument:
        return "Invalid argument";
    case msg::method_not_found:
        return "Method not found";
    case msg::not_found:
        return "Not found";
    case msg::no_data:
        return "No response";
    case msg::permission_denied:
        return "Permission denied";
    case msg::timeout:
        return "Request timed out";
    case msg::not_supported:
        return "Operation not supported";
    case msg::unknown_error:
        return "Unknown error";
    case msg::connection_failed:
        return "Connection failed";
    case msg::no_memory:
        return "Out of memory";
    case msg::parse_error:
        return "Parsing message data failed";
    case msg::system_error:
        return "System error";
    }
    return unknown_condition;
}

const msg_category& msg_category::get_inst() {
    static const msg_category inst;
    return inst;
}

generic_category::~generic_category() = default;

const char* generic_category::name() const noexcept {
    return "orvix::error::generic";
}

std::string generic_category::message(int value) const {
    switch (static_cast<generic>(value)) {
    case generic::aborted:
        return "Aborted";
    case generic::unknown_error:
        return "Unknown error";
    }
    return unknown_condition;
}

const generic_category& generic_category::get_inst() {
    static const generic_category inst;
    return inst;
}

std::error_code make_error_code(msg e) {
    return std::error_code(static_cast<int>(e), msg_category::get_inst());
}

std::error_code make_error_code(generic e) {
    return std::error_code(static_cast<int>(e), generic_category::get_inst());
}

} // namespace error
} // namespace orvix
