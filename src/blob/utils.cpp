#include <orvix/blob/utils.h>

#include "blob/big_endian.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace orvix {
namespace blob {
namespace utils {

namespace {

using detail::double_from_big_endian;
using detail::from_big_endian;

// Messages come from the bus and are not trusted: nested containers alone could make the
// decoder recurse deep enough to exhaust the stack. Deeper messages are refused as bad.
constexpr int max_nesting = 1024;
thread_local int nesting = 0;

class nesting_guard {
public:
    explicit nesting_guard(const char* refusal) {
        if (nesting >= max_nesting) {
            throw std::runtime_error(refusal);
        }
        ++nesting;
    }
    ~nesting_guard() { --nesting; }
    nesting_guard(const nesting_guard&) = delete;
    nesting_guard& operator=(const nesting_guard&) = delete;
};

std::string string_of(blob_attr* field) {
    const auto* text = static_cast<const char*>(blobmsg_data(field));
    return std::string(text, std::find(text, text + blobmsg_data_len(field), '\0'));
}

} // namespace

std::vector<unsigned char> to_unspec(blob_attr* field) {
    const auto* data = static_cast<const unsigned char*>(blobmsg_data(field));
    return std::vector<unsigned char>(data, data + blobmsg_data_len(field));
}

table to_table(blob_attr* container) {
    const nesting_guard guard("orvix::blob::utils::to_table: Bad attr");
    table result;
    blob_attr* field;
    std::size_t rem;
    blobmsg_for_each_attr(field, container, rem) {
        if (!blobmsg_check_attr(field, false)) {
            throw std::runtime_error("orvix::blob::utils::to_table: Bad attr");
        }
        if (blob_is_extended(field)) {
            result.emplace(blobmsg_name(field), to_attr(field, false));
        }
    }
    return result;
}

array to_array(blob_attr* container) {
    const nesting_guard guard("orvix::blob::utils::to_array: Bad attr");
    array result;
    blob_attr* field;
    std::size_t rem;
    blobmsg_for_each_attr(field, container, rem) {
        if (!blobmsg_check_attr(field, false)) {
            throw std::runtime_error("orvix::blob::utils::to_array: Bad attr");
        }
        result.push_back(to_attr(field, false));
    }
    return result;
}

attr to_attr(blob_attr* field, bool as_bool) {
    const void* data = blobmsg_data(field);
    const int type = blobmsg_type(field);
    switch (type) {
    case BLOBMSG_TYPE_UNSPEC:
        return attr(to_unspec(field));
    case BLOBMSG_TYPE_ARRAY:
        return attr(to_array(field));
    case BLOBMSG_TYPE_TABLE:
        return attr(to_table(field));
    case BLOBMSG_TYPE_STRING:
        return attr(string_of(field));
    case BLOBMSG_TYPE_INT64:
        return attr(from_big_endian<unsigned long long>(data));
    case BLOBMSG_TYPE_INT32:
        return attr(from_big_endian<unsigned int>(data));
    case BLOBMSG_TYPE_INT16:
        return attr(from_big_endian<unsigned short>(data));
    case BLOBMSG_TYPE_INT8: {
        const unsigned char byte = *static_cast<const unsigned char*>(data);
        return as_bool ? attr(byte != 0) : attr(byte);
    }
    case BLOBMSG_TYPE_DOUBLE:
        return attr(double_from_big_endian(data));
    default:
        throw std::logic_error("orvix::blob::utils::to_attr: Unknown type" + std::to_string(type));
    }
}

enum blobmsg_type to_blobmsg_type(const std::type_index& type) {
    // Never destroyed: the library's loop thread decodes until the client, destroyed at
    // exit after this table would be, has joined it.
    static const auto& types = *new const std::map<std::type_index, enum blobmsg_type> {
        {typeid(std::vector<unsigned char>), BLOBMSG_TYPE_UNSPEC},
        {typeid(array), BLOBMSG_TYPE_ARRAY},
        {typeid(table), BLOBMSG_TYPE_TABLE},
        {typeid(std::string), BLOBMSG_TYPE_STRING},
        {typeid(unsigned long long), BLOBMSG_TYPE_INT64},
        {typeid(unsigned int), BLOBMSG_TYPE_INT32},
        {typeid(unsigned short), BLOBMSG_TYPE_INT16},
        {typeid(unsigned char), BLOBMSG_TYPE_INT8},
        {typeid(bool), BLOBMSG_TYPE_INT8},
        {typeid(double), BLOBMSG_TYPE_DOUBLE},
    };
    const auto found = types.find(type);
    if (found == types.end()) {
        throw std::logic_error("orvix::blob::utils::to_blobmsg_type: Unknown type");
    }
    return found->second;
}

table to_table(blob_attr* msg, const std::multimap<std::string, std::type_index>& policy) {
    // Needed only for refusals: a std::string would cost an allocation per call.
    const char* const prefix = "orvix::blob::utils::to_table: ";
    if (policy.size() > static_cast<std::size_t>(INT_MAX)) {
        throw std::runtime_error(std::string(prefix) + "Too big policy");
    }
    std::vector<blobmsg_policy> policies;
    policies.reserve(policy.size());
    for (const auto& entry : policy) {
        policies.push_back({entry.first.c_str(), to_blobmsg_type(entry.second)});
    }
    std::vector<blob_attr*> results(policy.size(), nullptr);
    // libubox refuses a missing message as it refuses an empty one.
    void* data = msg ? blob_data(msg) : nullptr;
    const auto len = msg ? static_cast<unsigned int>(blob_len(msg)) : 0u;
    if (blobmsg_parse(policies.data(), static_cast<int>(policies.size()), results.data(), data,
                      len) != 0) {
        throw std::runtime_error(std::string(prefix) + "Failed to parse message");
    }

    table result;
    auto result_of = results.begin();
    for (const auto& entry : policy) {
        if (*result_of) {
            result.emplace(entry.first, to_attr(*result_of, entry.second == typeid(bool)));
        }
        ++result_of;
    }
    return result;
}

} // namespace utils
} // namespace blob
} // namespace orvix
