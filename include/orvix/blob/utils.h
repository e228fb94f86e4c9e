#pragma once

#include <orvix/blob/attr.h>

#include <list>
#include <map>
#include <string>
#include <typeindex>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace orvix {
namespace blob {
namespace utils {

// The lengths of the attributes given here are trusted, as libubus has checked
// those of the messages it hands over; the fields inside them are checked.

/// The value bytes of `field` (after its name, if it has one); empty for null.
std::vector<unsigned char> to_unspec(blob_attr* field);

/// Every named field of `container` (a message head or a table field), equal
/// names in wire order; fields without a name are skipped. Empty for null.
/// std::runtime_error if a field is malformed.
std::multimap<std::string, attr> to_table(blob_attr* container);

/// Every field of `container` (an array field), in wire order, names ignored.
/// Empty for null. std::runtime_error if a field is malformed.
std::list<attr> to_array(blob_attr* container);

/// One field, as the value kind of its blobmsg type; an INT8 field becomes a
/// bool when `as_bool` is set, otherwise an unsigned char. Nested fields
/// decode their INT8 members as unsigned char. std::logic_error for a type
/// that blobmsg does not define.
attr to_attr(blob_attr* field, bool as_bool);

/// The blobmsg type that a value kind is written as. std::logic_error for a
/// type that is not a value kind, signed integers included.
enum blobmsg_type to_blobmsg_type(const std::type_index& type);

/// The fields of the message `msg` that `policy` names with the blobmsg type
/// of their value kind, as libubox's blobmsg_parse picks them: a missing or
/// wrongly typed field is left out, and of equal names the first that fits
/// wins. A field named with bool decodes as bool. The policy's keys are used
/// during the call. std::runtime_error if libubox cannot parse the message,
/// an empty or null one included; std::logic_error for an unknown type.
std::multimap<std::string, attr>
to_table(blob_attr* msg, const std::multimap<std::string, std::type_index>& policy);

} // namespace utils
} // namespace blob
} // namespace orvix
