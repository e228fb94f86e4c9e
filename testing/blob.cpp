#include "orvix_testing/blob.h"

extern "C" {
#include <libubox/blob.h>
}

#include <cstring>

namespace orvix_testing {

std::string to_hex(const blob_attr* a) {
    return to_hex(a, blob_raw_len(a));
}

std::string to_hex(const blob_buf& b) {
    return to_hex(b.head);
}

message_blob::message_blob(const std::uint8_t* data, std::size_t size)
    : storage_(sizeof(blob_attr) + size) {
    if (size) {
        std::memcpy(storage_.data() + sizeof(blob_attr), data, size);
    }
    blob_set_raw_len(head(), static_cast<unsigned int>(storage_.size()));
}

bool message_blob::fits(std::size_t size) {
    return size <= BLOB_ATTR_LEN_MASK - sizeof(blob_attr);
}

} // namespace orvix_testing
