#pragma once

#include <orvix/blob/attr.h>

#include <cstddef>
#include <map>
#include <string>
#include <typeindex>

extern "C" {
#include <libubox/blob.h>
}

namespace orvix {
namespace blob {

/// A blobmsg message built from a table of attrs, held in a libubox blob_buf
/// for libubus. Each value kind is written as one blobmsg type: unspec bytes,
/// array, table, string, int64, int32, int16, int8 (also for bool) and double,
/// integers and doubles big-endian.
class buf {
public:
    buf();
    buf(const std::multimap<std::string, attr>& fields);
    ~buf();

    // The libubox buffer cannot be shared or duplicated.
    buf(const buf&) = delete;
    buf& operator=(const buf&) = delete;

    /// Appends one field. std::logic_error for an empty attr or a type that
    /// is not a value kind, std::runtime_error if the buffer cannot grow. After
    /// a failure the buffer must be cleared before it is used again.
    void add(const std::string& name, const attr& value);

    /// Empties the message.
    void clear();

    /// Replaces the message with the fields of `fields`, in its order.
    void assign(const std::multimap<std::string, attr>& fields);
    buf& operator=(const std::multimap<std::string, attr>& fields);

    /// The libubox buffer; its `head` is the message.
    blob_buf* native() { return &native_buf; }
    const blob_buf* native() const { return &native_buf; }

private:
    using encoder = void (*)(buf&, const std::string&, const attr&);

    /// One encoder per value kind, shared by every buf: building it per buf cost more
    /// than encoding a typical message.
    static const std::map<std::type_index, encoder>& encoders();

    void add_field(int type, const std::string& name, const void* data, std::size_t size,
                   const char* kind);
    void* open_nested(const std::string& name, bool is_array, const char* kind);

    static constexpr const char* prefix = "orvix::blob::buff: ";
    blob_buf native_buf;
};

} // namespace blob
} // namespace orvix
