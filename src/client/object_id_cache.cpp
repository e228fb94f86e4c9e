#include "client/object_id_cache.h"

#include <orvix/uloop.h>

#include <cstring>
#include <utility>

namespace orvix {

namespace {

bool is_wildcard(const std::string& path) {
    return !path.empty() && path.back() == '*';
}

} // namespace

object_id_cache::object_id_cache(std::function<void(std::uint32_t)> removed)
    : removals{}, watched(state::unwatched), removed(std::move(removed)) {}

bool object_id_cache::watch(ubus_context* bus) {
    if (watched != state::unwatched) {
        return watched == state::watching;
    }
    // Laid out afresh: an id that an earlier connection gave is void.
    removals.handler = ubus_event_handler{};
    removals.handler.cb = &object_id_cache::removal_callable;
    removals.owner = this;
    if (ubus_register_event_handler(bus, &removals.handler, "ubus.object.remove") ==
        UBUS_STATUS_OK) {
        watched = state::watching;
        return true;
    }
    // Not tried again on this connection: a pattern the daemon refuses stays refused, and
    // calls are looked up one by one as they would be without the cache.
    watched = state::refused;
    // libubus keeps the object it added even when the daemon refuses the pattern.
    if (removals.handler.obj.id != 0) {
        ubus_remove_object(bus, &removals.handler.obj);
    }
    return false;
}

void object_id_cache::reset() {
    ids.clear();
    watched = state::unwatched;
}

std::uint32_t object_id_cache::find(const std::string& path) const {
    if (watched != state::watching) {
        return 0;
    }
    const auto it = ids.find(path);
    return it == ids.end() ? 0 : it->second;
}

void object_id_cache::store(const std::string& path, std::uint32_t id) {
    // An id of 0 is a lookup that found the path but no object it may list.
    if (watched == state::watching && id != 0 && !is_wildcard(path)) {
        ids[path] = id;
    }
}

void object_id_cache::drop(const std::string& path, std::uint32_t id) {
    const auto it = ids.find(path);
    if (it != ids.end() && it->second == id) {
        ids.erase(it);
    }
}

void object_id_cache::removal_callable(ubus_context*, ubus_event_handler* ev, const char*,
                                       blob_attr* msg) {
    try {
        enum { id_field, path_field, field_count };
        static const blobmsg_policy policy[field_count] = {{"id", BLOBMSG_TYPE_INT32},
                                                           {"path", BLOBMSG_TYPE_STRING}};
        blob_attr* fields[field_count] = {};
        blobmsg_parse(policy, field_count, fields, blob_data(msg),
                      static_cast<unsigned int>(blob_len(msg)));
        if (!fields[id_field]) {
            return;
        }
        auto& self = *reinterpret_cast<listener*>(ev)->owner;
        const std::uint32_t id = blobmsg_get_u32(fields[id_field]);
        if (fields[path_field]) {
            self.drop(blobmsg_get_string(fields[path_field]), id);
        }
        self.removed(id);
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

retained_call::retained_call(const std::string& path, const std::string& method,
                             const blob_attr* message) {
    const std::size_t message_size = blob_pad_len(message);
    const std::size_t path_size = std::strlen(path.c_str()) + 1;
    const std::size_t method_size = std::strlen(method.c_str()) + 1;
    words.resize((message_size + path_size + method_size + sizeof(std::uint32_t) - 1) /
                 sizeof(std::uint32_t));
    auto* bytes = reinterpret_cast<char*>(words.data());
    std::memcpy(bytes, message, message_size);
    std::memcpy(bytes + message_size, path.c_str(), path_size);
    std::memcpy(bytes + message_size + path_size, method.c_str(), method_size);
}

blob_attr* retained_call::message() {
    return reinterpret_cast<blob_attr*>(words.data());
}

const char* retained_call::path() const {
    const auto* bytes = reinterpret_cast<const char*>(words.data());
    return bytes + blob_pad_len(reinterpret_cast<const blob_attr*>(bytes));
}

const char* retained_call::method() const {
    const char* at = path();
    return at + std::strlen(at) + 1;
}

} // namespace orvix
