#pragma once

#include <libubus.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace orvix {

/// The object ids that invokes go to, by path, for one connection; on the loop thread
/// only. An entry is exact until the daemon's "ubus.object.remove" for its id runs: ids
/// are never reused, and the daemon writes that event on every listener's connection
/// before anything it sends later. So the cache is used only while its own listener for
/// the event is registered on the current connection, and never for a wildcard path,
/// whose answer changes as objects come.
class object_id_cache {
public:
    /// `removed` is told the id of every removal the daemon announces.
    explicit object_id_cache(std::function<void(std::uint32_t)> removed);

    object_id_cache(const object_id_cache&) = delete;
    object_id_cache& operator=(const object_id_cache&) = delete;

    /// Registers the listener on `bus`, unless that was tried on this connection already.
    /// True while the cache may be used.
    bool watch(ubus_context* bus);

    /// Forgets the entries and the listener, which went with the connection.
    void reset();

    /// The id cached for `path`; 0 when there is none.
    std::uint32_t find(const std::string& path) const;

    /// Keeps what a lookup of `path` gave.
    void store(const std::string& path, std::uint32_t id);

    /// Drops the entry of `path` if it still names `id`.
    void drop(const std::string& path, std::uint32_t id);

private:
    enum class state { unwatched, watching, refused };

    /// What libubus holds while the listener is registered: the handler comes first, so
    /// that the callback finds its cache from the handler's address.
    struct listener {
        ubus_event_handler handler;
        object_id_cache* owner;
    };

    static void removal_callable(ubus_context* ctx, ubus_event_handler* ev, const char* type,
                                 blob_attr* msg);

    listener removals;
    state watched;
    std::function<void(std::uint32_t)> removed;
    std::unordered_map<std::string, std::uint32_t> ids;
};

/// A call as it went on the bus, kept so that it can be sent again after a fresh lookup:
/// the encoded arguments, the path and the method in one block.
class retained_call {
public:
    retained_call() = default;
    retained_call(const std::string& path, const std::string& method, const blob_attr* message);

    bool empty() const { return words.empty(); }
    blob_attr* message();
    const char* path() const;
    const char* method() const;

private:
    // Words, so that the message at the start is aligned as libubox reads it.
    std::vector<std::uint32_t> words;
};

} // namespace orvix
