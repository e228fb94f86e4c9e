#include <orvix/blob/buf.h>
#include <orvix/blob/json.h>

#include "blob/big_endian.h"

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace orvix {
namespace blob {

namespace {

using detail::double_from_big_endian;
using detail::from_big_endian;

// Messages come from the bus: containers nested deeper than the decoder accepts print as
// nothing, as an invalid member does, rather than recursing until the stack runs out.
constexpr int max_nesting = 1024;

// Deeper levels than this keep this indentation, as the device tool's does.
constexpr int deepest_indent = 16;

// Names, keys and string values stop at their first NUL: the device tool handles them
// as C strings.
void append_string(std::string& out, const char* text) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (const char* c = text; *c; ++c) {
        const auto byte = static_cast<unsigned char>(*c);
        switch (byte) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (byte < 0x20) {
                out += "\\u00";
                out += hex[byte >> 4];
                out += hex[byte & 0xf];
            } else {
                out += *c;
            }
        }
    }
    out += '"';
}

void append_double(std::string& out, double value) {
    // %lf writes every integral digit: DBL_MAX takes 309 of them.
    char text[400];
    std::snprintf(text, sizeof text, "%lf", value);
    out += text;
}

class printer {
public:
    printer(json_layout layout, const std::function<std::string(std::int32_t)>& int32_text)
        : indented(layout == json_layout::indented), int32_text(int32_text) {}

    std::string take() { return std::move(out); }

    void field(const blob_attr* attr) {
        if (!attr) {
            return;
        }
        if (!blob_is_extended(attr)) {
            // A message's attributes carry no name header: its payload is the fields.
            members(blob_data(attr), blob_len(attr), false);
        } else if (blobmsg_check_attr(attr, false)) {
            value(attr);
        }
    }

private:
    void members(const void* data, std::size_t length, bool as_array) {
        out += as_array ? '[' : '{';
        ++level;
        new_line();
        auto* pos = static_cast<const blob_attr*>(data);
        bool first = true;
        for (std::size_t rest = length; rest >= sizeof(blob_attr);) {
            const std::size_t size = blob_pad_len(pos);
            if (size < sizeof(blob_attr) || size > rest) {
                break;
            }
            if (!first) {
                out += ',';
                new_line();
            }
            first = false;
            member(pos, as_array);
            rest -= size;
            pos = blob_next(pos);
        }
        --level;
        new_line();
        out += as_array ? ']' : '}';
    }

    // An invalid member prints nothing; the caller's separators still do.
    void member(const blob_attr* attr, bool in_array) {
        if (!blobmsg_check_attr(attr, false)) {
            return;
        }
        // A plain attribute has no name header, so it prints as an unnamed member.
        if (!in_array && blob_is_extended(attr) && *blobmsg_name(attr)) {
            append_string(out, blobmsg_name(attr));
            out += indented ? ": " : ":";
        }
        value(attr);
    }

    void new_line() {
        if (!indented) {
            return;
        }
        out += '\n';
        out.append(static_cast<std::size_t>(std::min(level, deepest_indent)), '\t');
    }

    void value(const blob_attr* attr) {
        const auto* data = static_cast<const unsigned char*>(blobmsg_data(attr));
        char number[32];
        switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_UNSPEC:
            out += "null";
            break;
        case BLOBMSG_TYPE_ARRAY:
        case BLOBMSG_TYPE_TABLE:
            if (level < max_nesting) {
                members(data, blobmsg_data_len(attr), blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
            }
            break;
        case BLOBMSG_TYPE_STRING:
            append_string(out, reinterpret_cast<const char*>(data));
            break;
        case BLOBMSG_TYPE_INT64:
            std::snprintf(number, sizeof number, "%" PRId64,
                          static_cast<std::int64_t>(from_big_endian<std::uint64_t>(data)));
            out += number;
            break;
        case BLOBMSG_TYPE_INT32: {
            const auto number32 = static_cast<std::int32_t>(from_big_endian<std::uint32_t>(data));
            if (int32_text) {
                append_string(out, int32_text(number32).c_str());
                break;
            }
            std::snprintf(number, sizeof number, "%" PRId32, number32);
            out += number;
            break;
        }
        case BLOBMSG_TYPE_INT16:
            std::snprintf(
                number, sizeof number, "%d",
                static_cast<int>(static_cast<std::int16_t>(from_big_endian<std::uint16_t>(data))));
            out += number;
            break;
        case BLOBMSG_TYPE_INT8:
            out += *data ? "true" : "false";
            break;
        case BLOBMSG_TYPE_DOUBLE:
            append_double(out, double_from_big_endian(data));
            break;
        default:
            break;
        }
    }

    std::string out;
    bool indented;
    const std::function<std::string(std::int32_t)>& int32_text;
    int level = 0;
};

} // namespace

std::string to_json(const blob_attr* field, json_layout layout,
                    const std::function<std::string(std::int32_t)>& int32_text) {
    printer p(layout, int32_text);
    p.field(field);
    return p.take();
}

std::string to_json(const attr& value, json_layout layout) {
    buf encoded;
    encoded.add("", value);
    return to_json(static_cast<const blob_attr*>(blob_data(encoded.native()->head)), layout);
}

std::string to_json(const std::multimap<std::string, attr>& table, json_layout layout) {
    const buf encoded(table);
    return to_json(encoded.native()->head, layout);
}

} // namespace blob
} // namespace orvix
