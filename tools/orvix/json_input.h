#pragma once

#include <string>

// libubox declares its functions without C linkage; GoogleTest's headers must come before
// it (its __constructor macro breaks <cxxabi.h>).
extern "C" {
#include <libubox/blob.h>
}

namespace orvix {
namespace tool {

/// Parses `text` with the lenient grammar of the device tool's JSON reader (comments,
/// single quotes, trailing commas, case-insensitive literals, NaN and Infinity, text after
/// the first object ignored, at most 31 nested containers, integers clamped to 64 bits)
/// and adds the members of its top-level object to `buf`, in the order written, as
/// blobmsg attributes: integers fitting 32 bits as INT32, other integers as INT64,
/// numbers with a fraction or exponent as DOUBLE, true/false as BOOL, null as UNSPEC.
/// A key given twice keeps its first position and its last value; strings and keys end
/// at their first NUL (`\u0000`). Returns false when `text` does not start with a JSON
/// object (`buf` is then untouched: the whole text is read before anything is added), or
/// when the members do not fit into `buf`.
bool add_json_members(blob_buf* buf, const std::string& text);

} // namespace tool
} // namespace orvix
