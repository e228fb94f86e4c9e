#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "json_output.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

namespace orvix {
namespace tool {

namespace {

// Deeper levels than this keep this indentation, as the device tool's does.
constexpr int deepest_indent = 16;

std::uint16_t read_be16(const unsigned char* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::uint32_t read_be32(const unsigned char* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
           std::uint32_t{p[3]};
}

std::uint64_t read_be64(const unsigned char* p) {
    return (std::uint64_t{read_be32(p)} << 32) | read_be32(p + 4);
}

const unsigned char* payload(const blob_attr* attr) {
    return static_cast<const unsigned char*>(blob_data(attr));
}

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

const char* type_name(std::uint32_t type) {
    switch (type) {
    case BLOBMSG_TYPE_ARRAY:
        return "Array";
    case BLOBMSG_TYPE_TABLE:
        return "Table";
    case BLOBMSG_TYPE_STRING:
        return "String";
    case BLOBMSG_TYPE_INT32:
        return "Integer";
    case BLOBMSG_TYPE_BOOL:
        return "Boolean";
    default:
        return "(unknown)";
    }
}

class printer {
public:
    // `type_names` prints each INT32 as the name of the type it stands for, as signatures
    // are listed.
    printer(json_layout layout, bool type_names)
        : indented_(layout == json_layout::indented), type_names_(type_names) {}

    std::string take() { return std::move(out_); }

    void members(const void* data, std::size_t length, bool as_array) {
        out_ += as_array ? '[' : '{';
        ++level_;
        new_line();
        auto* pos = static_cast<const blob_attr*>(data);
        bool first = true;
        for (std::size_t rest = length; rest >= sizeof(blob_attr);) {
            const std::size_t size = blob_pad_len(pos);
            if (size < sizeof(blob_attr) || size > rest)
                break;
            if (!first) {
                out_ += ',';
                new_line();
            }
            first = false;
            member(pos, as_array);
            rest -= size;
            pos = blob_next(pos);
        }
        --level_;
        new_line();
        out_ += as_array ? ']' : '}';
    }

    // An invalid member prints nothing; the caller's separators still do.
    void member(const blob_attr* attr, bool in_array) {
        if (!blobmsg_check_attr(attr, false))
            return;
        // A plain attribute has no name header, so it prints as an unnamed member.
        if (!in_array && blob_is_extended(attr) && *blobmsg_name(attr)) {
            append_string(out_, blobmsg_name(attr));
            out_ += indented_ ? ": " : ":";
        }
        value(attr);
    }

private:
    void new_line() {
        if (!indented_)
            return;
        out_ += '\n';
        out_.append(static_cast<std::size_t>(std::min(level_, deepest_indent)), '\t');
    }

    void value(const blob_attr* attr) {
        const auto* data = static_cast<const unsigned char*>(blobmsg_data(attr));
        char number[32];
        switch (blobmsg_type(attr)) {
        case BLOBMSG_TYPE_UNSPEC:
            out_ += "null";
            break;
        case BLOBMSG_TYPE_ARRAY:
        case BLOBMSG_TYPE_TABLE:
            members(data, blobmsg_data_len(attr), blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
            break;
        case BLOBMSG_TYPE_STRING:
            append_string(out_, reinterpret_cast<const char*>(data));
            break;
        case BLOBMSG_TYPE_INT64:
            std::snprintf(number, sizeof number, "%" PRId64,
                          static_cast<std::int64_t>(read_be64(data)));
            out_ += number;
            break;
        case BLOBMSG_TYPE_INT32:
            if (type_names_) {
                out_ += '"';
                out_ += type_name(read_be32(data));
                out_ += '"';
                break;
            }
            std::snprintf(number, sizeof number, "%" PRId32,
                          static_cast<std::int32_t>(read_be32(data)));
            out_ += number;
            break;
        case BLOBMSG_TYPE_INT16:
            std::snprintf(number, sizeof number, "%d",
                          static_cast<int>(static_cast<std::int16_t>(read_be16(data))));
            out_ += number;
            break;
        case BLOBMSG_TYPE_INT8:
            out_ += *data ? "true" : "false";
            break;
        case BLOBMSG_TYPE_DOUBLE: {
            const std::uint64_t bits = read_be64(data);
            double d;
            std::memcpy(&d, &bits, sizeof d);
            append_double(out_, d);
            break;
        }
        default:
            break;
        }
    }

    std::string out_;
    bool indented_;
    bool type_names_;
    int level_ = 0;
};

// The observed message's attributes, as the daemon and libubus read them: the last
// attribute of an id wins, one of the wrong size or type counts as absent.
enum class wire_kind { none, int8, int32, string, nested };

void parse_attrs(const blob_attr* container, const wire_kind* kinds, unsigned count,
                 const blob_attr** found) {
    std::fill(found, found + count, nullptr);
    auto* pos = static_cast<const blob_attr*>(blob_data(container));
    for (std::size_t rest = blob_len(container); rest >= sizeof(blob_attr);) {
        const std::size_t size = blob_pad_len(pos);
        if (size < sizeof(blob_attr) || size > rest)
            break;
        const unsigned id = blob_id(pos);
        if (id < count) {
            const std::size_t length = blob_len(pos);
            bool fits = false;
            switch (kinds[id]) {
            case wire_kind::none:
                break;
            case wire_kind::int8:
                fits = length == 1;
                break;
            case wire_kind::int32:
                fits = length == 4;
                break;
            case wire_kind::string:
                fits = length >= 1 && payload(pos)[length - 1] == 0;
                break;
            case wire_kind::nested:
                fits = true;
                break;
            }
            if (fits)
                found[id] = pos;
        }
        rest -= size;
        pos = blob_next(pos);
    }
}

const char* const message_type_names[] = {
    "hello",      "status",        "data",      "ping",        "lookup", "invoke",
    "add_object", "remove_object", "subscribe", "unsubscribe", "notify",
};

} // namespace

std::string format_json(const blob_attr* container, bool as_array, json_layout layout) {
    printer p(layout, false);
    p.members(blobmsg_data(container), blobmsg_data_len(container), as_array);
    return p.take();
}

std::string format_signature_method(const blob_attr* method) {
    printer p(json_layout::compact, true);
    p.member(method, false);
    return p.take();
}

std::string format_monitor_report(const blob_attr* body) {
    wire_kind monitor_kinds[UBUS_MONITOR_MAX] = {};
    monitor_kinds[UBUS_MONITOR_CLIENT] = wire_kind::int32;
    monitor_kinds[UBUS_MONITOR_PEER] = wire_kind::int32;
    monitor_kinds[UBUS_MONITOR_SEND] = wire_kind::int8;
    monitor_kinds[UBUS_MONITOR_TYPE] = wire_kind::int32;
    monitor_kinds[UBUS_MONITOR_DATA] = wire_kind::nested;
    const blob_attr* monitor[UBUS_MONITOR_MAX];
    parse_attrs(body, monitor_kinds, UBUS_MONITOR_MAX, monitor);
    for (int needed : {UBUS_MONITOR_CLIENT, UBUS_MONITOR_PEER, UBUS_MONITOR_SEND, UBUS_MONITOR_TYPE,
                       UBUS_MONITOR_DATA}) {
        if (!monitor[needed])
            return "Invalid monitor msg";
    }

    const std::uint32_t type = read_be32(payload(monitor[UBUS_MONITOR_TYPE]));
    char head[64];
    std::snprintf(head, sizeof head, "%s %08" PRIx32 " #%08" PRIx32 " ",
                  *payload(monitor[UBUS_MONITOR_SEND]) ? "->" : "<-",
                  read_be32(payload(monitor[UBUS_MONITOR_CLIENT])),
                  read_be32(payload(monitor[UBUS_MONITOR_PEER])));
    std::string line = head;
    char type_text[16];
    if (type < sizeof message_type_names / sizeof *message_type_names)
        std::snprintf(type_text, sizeof type_text, "%s", message_type_names[type]);
    else
        std::snprintf(type_text, sizeof type_text, "%" PRId32, static_cast<std::int32_t>(type));
    std::snprintf(head, sizeof head, "%14s: ", type_text);
    line += head;

    // TARGET and SUBSCRIBERS are left out: they stay `none`.
    wire_kind kinds[UBUS_ATTR_MAX] = {};
    const char* names[UBUS_ATTR_MAX] = {};
    const auto show = [&](int id, wire_kind kind, const char* name) {
        kinds[id] = kind;
        names[id] = name;
    };
    show(UBUS_ATTR_STATUS, wire_kind::int32, "status");
    show(UBUS_ATTR_OBJPATH, wire_kind::string, "objpath");
    show(UBUS_ATTR_OBJID, wire_kind::int32, "objid");
    show(UBUS_ATTR_METHOD, wire_kind::string, "method");
    show(UBUS_ATTR_OBJTYPE, wire_kind::int32, "objtype");
    show(UBUS_ATTR_SIGNATURE, wire_kind::nested, "signature");
    show(UBUS_ATTR_DATA, wire_kind::nested, "data");
    show(UBUS_ATTR_ACTIVE, wire_kind::int8, "active");
    show(UBUS_ATTR_NO_REPLY, wire_kind::int8, "no_reply");
    show(UBUS_ATTR_USER, wire_kind::string, "user");
    show(UBUS_ATTR_GROUP, wire_kind::string, "group");
    const blob_attr* attrs[UBUS_ATTR_MAX];
    parse_attrs(monitor[UBUS_MONITOR_DATA], kinds, UBUS_ATTR_MAX, attrs);

    line += '{';
    bool first = true;
    for (int id = 0; id < UBUS_ATTR_MAX; ++id) {
        const blob_attr* attr = attrs[id];
        if (!attr)
            continue;
        if (!first)
            line += ',';
        first = false;
        append_string(line, names[id]);
        line += ':';
        switch (kinds[id]) {
        case wire_kind::int32:
            line += std::to_string(static_cast<std::int32_t>(read_be32(payload(attr))));
            break;
        case wire_kind::string:
            append_string(line, static_cast<const char*>(blob_data(attr)));
            break;
        case wire_kind::int8:
            line += *payload(attr) ? "true" : "false";
            break;
        case wire_kind::nested: {
            // Message attributes carry no name header, whatever their flag says.
            printer nested(json_layout::compact, false);
            nested.members(blob_data(attr), blob_len(attr), false);
            line += nested.take();
            break;
        }
        case wire_kind::none:
            break;
        }
    }
    line += '}';
    return line;
}

int monitor_type_from_name(const std::string& name) {
    const auto* begin = std::begin(message_type_names);
    const auto* end = std::end(message_type_names);
    const auto* found = std::find(begin, end, name);
    return found == end ? -1 : static_cast<int>(found - begin);
}

} // namespace tool
} // namespace orvix
