#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" {
#include <libubox/blob.h>
}

namespace orvix_fuzz {

/// A message head as libubus hands it over: a non-extended attribute of id 0
/// whose payload is `data`. The storage is exactly as long as the attribute,
/// so the sanitizer sees any read past the announced bytes.
class message {
public:
    message(const std::uint8_t* data, std::size_t size) : storage(sizeof(blob_attr) + size) {
        std::memcpy(storage.data() + sizeof(blob_attr), data, size);
        blob_set_raw_len(head(), static_cast<unsigned int>(storage.size()));
    }

    /// Whether `size` bytes fit the length field of one attribute.
    static bool fits(std::size_t size) { return size <= BLOB_ATTR_LEN_MASK - sizeof(blob_attr); }

    blob_attr* head() { return reinterpret_cast<blob_attr*>(storage.data()); }

private:
    std::vector<unsigned char> storage;
};

} // namespace orvix_fuzz
