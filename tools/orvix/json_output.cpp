#include <orvix/blob/attr.h>
#include <orvix/blob/json.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "json_output.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

namespace orvix {
namespace tool {

namespace {

const unsigned char* payload(const blob_attr* attr) {
    return static_cast<const unsigned char*>(blob_data(attr));
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

// Message attributes carry no name header, whatever their flag says, while the library
// reads a flagged attribute as a blobmsg field: such a one is printed from a plain copy.
std::string message_json(const blob_attr* attr) {
    if (!blob_is_extended(attr))
        return blob::to_json(attr);
    // Words, so that the copy is aligned as libubox expects; id 0 and no flag.
    std::vector<std::uint32_t> words(1 + (blob_len(attr) + 3) / 4, 0);
    auto* plain = reinterpret_cast<blob_attr*>(words.data());
    blob_set_raw_len(plain, static_cast<unsigned>(sizeof(blob_attr) + blob_len(attr)));
    std::memcpy(blob_data(plain), blob_data(attr), blob_len(attr));
    return blob::to_json(plain);
}

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

std::string format_signature_method(const blob_attr* method) {
    if (!blobmsg_check_attr(method, false))
        return "";
    std::string entry;
    if (blob_is_extended(method) && *blobmsg_name(method))
        entry = blob::to_json(blob::attr(std::string(blobmsg_name(method)))) + ":";
    return entry + blob::to_json(method, blob::json_layout::compact, [](std::int32_t type) {
               return type_name(static_cast<std::uint32_t>(type));
           });
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

    const std::uint32_t type = blob_get_u32(monitor[UBUS_MONITOR_TYPE]);
    char head[64];
    std::snprintf(head, sizeof head, "%s %08" PRIx32 " #%08" PRIx32 " ",
                  blob_get_u8(monitor[UBUS_MONITOR_SEND]) ? "->" : "<-",
                  blob_get_u32(monitor[UBUS_MONITOR_CLIENT]),
                  blob_get_u32(monitor[UBUS_MONITOR_PEER]));
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
        line += '"';
        line += names[id];
        line += "\":";
        switch (kinds[id]) {
        case wire_kind::int32:
            line += std::to_string(static_cast<std::int32_t>(blob_get_u32(attr)));
            break;
        case wire_kind::string:
            line +=
                blob::to_json(blob::attr(std::string(static_cast<const char*>(blob_data(attr)))));
            break;
        case wire_kind::int8:
            line += blob_get_u8(attr) ? "true" : "false";
            break;
        case wire_kind::nested:
            line += message_json(attr);
            break;
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
