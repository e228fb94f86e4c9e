#pragma once

#include <orvix/blob/attr.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

// libubox's attribute; only pointers to it are taken here.
struct blob_attr;

namespace orvix {
namespace blob {

/// How to_json lays its text out: indented with tabs, one member per line (nesting
/// deeper than sixteen levels keeps sixteen tabs), or on one line without blanks.
enum class json_layout { indented, compact };

/// `value` as JSON, printed as the orvix tool prints what comes over the bus: it is
/// encoded as blob::buf encodes it and printed as its blobmsg field. bool and unsigned
/// char (both one byte on the wire) print as true or false, other integers as signed
/// numbers of their width, doubles with six decimals, bytes as null, strings up to their
/// first NUL. Throws what blob::buf throws for a value it cannot encode
/// (std::logic_error for an empty attr).
std::string to_json(const attr& value, json_layout layout = json_layout::compact);

/// `table` as a JSON object, as the other overload prints a value, its members in the
/// table's order.
std::string to_json(const std::multimap<std::string, attr>& table,
                    json_layout layout = json_layout::compact);

/// `field` as JSON, for messages taken from libubus itself: a blobmsg field as its
/// value, and a plain attribute such as a message's top one as the object of the
/// blobmsg fields it holds. Members print in wire order, those with an empty name
/// without their key, invalid ones as nothing between their separators; an invalid
/// `field`, or none, prints as nothing. With `int32_text`, every INT32 value prints as
/// the JSON string of the text it returns for it instead of as a number.
std::string to_json(const blob_attr* field, json_layout layout = json_layout::compact,
                    const std::function<std::string(std::int32_t)>& int32_text = {});

} // namespace blob
} // namespace orvix
