#pragma once

#include <orvix/blob/attr.h>

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <string>

namespace orvix {
namespace tool {

/// The two layouts in which the ubus tool prints a reply: indented with tabs, one member
/// per line, or on one line (its -S).
enum class json_layout { indented, compact };

/// The arguments of a call, mapped from a JSON object as the ubus tool maps them: an
/// integer fitting 32 bits to int, other integers to long long (saturated), any other
/// number to double, true/false to bool, a string to std::string, null to an empty byte
/// vector, arrays and objects to arrays and tables. Throws std::invalid_argument when
/// `json` is not an object.
std::multimap<std::string, blob::attr> to_table(const nlohmann::json& json);

/// The same from JSON text; std::invalid_argument also when the text is no JSON.
std::multimap<std::string, blob::attr> parse_table(const std::string& text);

/// A reply as the ubus tool prints it, without a final newline: bool and unsigned char
/// as true/false, the wider integers as signed decimals of their width, double with six
/// decimals, strings up to their first NUL, byte vectors (and an empty attr) as null.
/// A table member with an empty name is printed as its value alone, as the ubus tool does.
std::string to_json_text(const std::multimap<std::string, blob::attr>& table, json_layout layout);

} // namespace tool
} // namespace orvix
