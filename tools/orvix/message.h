#pragma once

// The message argument of call and send. Include after the standard headers: libubox's
// macros clash with some of them.

#include <libubus.h>

namespace orvix {
namespace tool {

/// A message being built, freed with its scope.
class message_buffer {
public:
    message_buffer() { blob_buf_init(&buf_, 0); }
    ~message_buffer() { blob_buf_free(&buf_); }
    message_buffer(const message_buffer&) = delete;
    message_buffer& operator=(const message_buffer&) = delete;

    blob_buf* get() { return &buf_; }
    blob_attr* head() { return buf_.head; }

private:
    blob_buf buf_{};
};

/// Adds the members of the JSON object `argument` to `buf`; "-" reads the JSON from
/// standard input. False when it is not a JSON object.
bool add_message(blob_buf* buf, const char* argument);

} // namespace tool
} // namespace orvix
