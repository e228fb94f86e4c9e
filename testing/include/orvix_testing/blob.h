// libubox blobs in tests: their bytes as hex, and bytes held where libubox may read them.
// No libubox header comes with this one: including it early would put libubox's
// __constructor macro ahead of <cxxabi.h>, which GoogleTest needs.
#pragma once

#include "orvix_testing/hex.h"

struct blob_attr;
struct blob_buf;

namespace orvix_testing {

/// The attribute as a whole (header, payload, no padding).
std::string to_hex(const blob_attr* a);
/// The message built so far.
std::string to_hex(const blob_buf& b);

/// `body` behind a message head, as libubus hands a message over: a plain attribute of
/// id 0 holding the fields. Kept exactly as long as the head says, so that a sanitizer
/// sees any read past it.
class message_blob {
public:
    explicit message_blob(const bytes& body) : message_blob(body.data(), body.size()) {}
    explicit message_blob(std::string_view hex_body) : message_blob(from_hex(hex_body)) {}
    message_blob(const std::uint8_t* data, std::size_t size);

    /// Whether `size` bytes of body fit the length field of one attribute.
    static bool fits(std::size_t size);

    blob_attr* head() { return reinterpret_cast<blob_attr*>(storage_.data()); }
    /// The first field, where a body is read as one attribute.
    blob_attr* first() { return reinterpret_cast<blob_attr*>(storage_.data() + 4); }

private:
    // Heap storage: aligned for blob_attr, as libubox expects.
    bytes storage_;
};

} // namespace orvix_testing
