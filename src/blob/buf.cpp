#include <orvix/blob/buf.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace orvix {
namespace blob {

namespace {

template <typename T>
std::array<unsigned char, sizeof(T)> big_endian(T value) {
    std::array<unsigned char, sizeof(T)> bytes;
    for (std::size_t i = sizeof(T); i-- > 0;) {
        bytes[i] = static_cast<unsigned char>(value & 0xffu);
        value = static_cast<T>(value >> 8);
    }
    return bytes;
}

// Some type names begin with '*' to mark them as local to a translation unit.
std::string type_name(const std::type_index& type) {
    const char* name = type.name();
    return name[0] == '*' ? name + 1 : name;
}

// A longer name or value cannot be described by the blobmsg headers.
bool encodable(const std::string& name, std::size_t size) {
    return std::strlen(name.c_str()) <= UINT16_MAX && size <= BLOB_ATTR_LEN_MASK;
}

void init(blob_buf* native) {
    if (blob_buf_init(native, 0) != 0) {
        throw std::bad_alloc();
    }
}

} // namespace

const std::map<std::type_index, buf::encoder>& buf::encoders() {
    // Never destroyed: the library's loop thread encodes until the client, destroyed at
    // exit after this table would be, has joined it.
    static const auto& all = *new const std::map<std::type_index, encoder>{
        {typeid(std::vector<unsigned char>),
         [](buf& self, const std::string& name, const attr& value) {
             const auto& bytes = value.get<std::vector<unsigned char>>();
             self.add_field(BLOBMSG_TYPE_UNSPEC, name, bytes.data(), bytes.size(), "unspec");
         }},
        {typeid(array),
         [](buf& self, const std::string& name, const attr& value) {
             void* cookie = self.open_nested(name, true, "array");
             for (const attr& member : value.get<array>()) {
                 self.add("", member);
             }
             blob_nest_end(&self.native_buf, cookie);
         }},
        {typeid(table),
         [](buf& self, const std::string& name, const attr& value) {
             void* cookie = self.open_nested(name, false, "table");
             for (const auto& member : value.get<table>()) {
                 self.add(member.first, member.second);
             }
             blob_nest_end(&self.native_buf, cookie);
         }},
        {typeid(std::string),
         [](buf& self, const std::string& name, const attr& value) {
             // Written as C strings are: up to the first NUL, which ends it.
             const char* text = value.get<std::string>().c_str();
             self.add_field(BLOBMSG_TYPE_STRING, name, text, std::strlen(text) + 1, "string");
         }},
        {typeid(unsigned long long),
         [](buf& self, const std::string& name, const attr& value) {
             const auto bytes = big_endian<std::uint64_t>(value.get<unsigned long long>());
             self.add_field(BLOBMSG_TYPE_INT64, name, bytes.data(), bytes.size(), "int64");
         }},
        {typeid(unsigned int),
         [](buf& self, const std::string& name, const attr& value) {
             const auto bytes = big_endian<std::uint32_t>(value.get<unsigned int>());
             self.add_field(BLOBMSG_TYPE_INT32, name, bytes.data(), bytes.size(), "int32");
         }},
        {typeid(unsigned short),
         [](buf& self, const std::string& name, const attr& value) {
             const auto bytes = big_endian<std::uint16_t>(value.get<unsigned short>());
             self.add_field(BLOBMSG_TYPE_INT16, name, bytes.data(), bytes.size(), "int16");
         }},
        {typeid(unsigned char),
         [](buf& self, const std::string& name, const attr& value) {
             const unsigned char byte = value.get<unsigned char>();
             self.add_field(BLOBMSG_TYPE_INT8, name, &byte, 1, "int8");
         }},
        {typeid(bool),
         [](buf& self, const std::string& name, const attr& value) {
             const unsigned char byte = value.get<bool>() ? 1 : 0;
             self.add_field(BLOBMSG_TYPE_INT8, name, &byte, 1, "boolean");
         }},
        {typeid(double),
         [](buf& self, const std::string& name, const attr& value) {
             static_assert(sizeof(double) == sizeof(std::uint64_t), "double must be 64 bits");
             std::uint64_t bits;
             const double number = value.get<double>();
             std::memcpy(&bits, &number, sizeof(bits));
             const auto bytes = big_endian(bits);
             self.add_field(BLOBMSG_TYPE_DOUBLE, name, bytes.data(), bytes.size(), "decimal");
         }},
    };
    return all;
}

buf::buf() : native_buf() {
    // Last, so that nothing is left to free if the constructor fails.
    init(&native_buf);
}

buf::buf(const std::multimap<std::string, attr>& fields) : buf() {
    assign(fields);
}

buf::~buf() {
    blob_buf_free(&native_buf);
}

void buf::add(const std::string& name, const attr& value) {
    const auto& all = encoders();
    const auto handler = all.find(value.type());
    if (handler == all.end()) {
        throw std::logic_error(std::string(prefix) + "Unsupported type [" +
                               type_name(value.type()) + "]");
    }
    handler->second(*this, name, value);
}

void buf::clear() {
    blob_buf_free(&native_buf);
    init(&native_buf);
}

void buf::assign(const std::multimap<std::string, attr>& fields) {
    clear();
    for (const auto& field : fields) {
        add(field.first, field.second);
    }
}

buf& buf::operator=(const std::multimap<std::string, attr>& fields) {
    assign(fields);
    return *this;
}

void buf::add_field(int type, const std::string& name, const void* data, std::size_t size,
                    const char* kind) {
    if (!encodable(name, size) || blobmsg_add_field(&native_buf, type, name.c_str(), data,
                                                    static_cast<unsigned int>(size)) != 0) {
        throw std::runtime_error(std::string(prefix) + "Faild to handle " + kind);
    }
}

void* buf::open_nested(const std::string& name, bool is_array, const char* kind) {
    void* cookie =
        encodable(name, 0) ? blobmsg_open_nested(&native_buf, name.c_str(), is_array) : nullptr;
    if (!cookie) {
        throw std::runtime_error(std::string(prefix) + "Faild to handle " + kind);
    }
    return cookie;
}

} // namespace blob
} // namespace orvix
