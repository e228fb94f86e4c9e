#pragma once

// Include GoogleTest and the standard headers first: libubox's headers define a macro
// named __constructor, which breaks <cxxabi.h> when that comes later.
#include <orvix_testing/hex.h>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace orvix_testing {

/// A message built field by field, valid or not, as libubus would hand it over.
struct field_builder {
    field_builder() { blob_buf_init(&buf, 0); }
    ~field_builder() { blob_buf_free(&buf); }
    field_builder(const field_builder&) = delete;
    field_builder& operator=(const field_builder&) = delete;

    /// One field of any type, whose value is given in hex.
    void add(int type, const char* name, const char* hex_value) {
        const auto value = from_hex(hex_value);
        blobmsg_add_field(&buf, type, name, value.data(), static_cast<unsigned>(value.size()));
    }

    blob_buf buf{};
};

} // namespace orvix_testing
