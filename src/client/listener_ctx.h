#pragma once

#include "client/client_impl.h"

#include <memory>
#include <string>

namespace orvix {

/// The libubus side of a listener: libubus keeps a pointer to `handler` while it is
/// registered, so the record never moves. Touched on the loop thread only, but for
/// `pattern` and `owner`, which never change.
class client_impl::ubus_listener_ctx {
public:
    explicit ubus_listener_ctx(const std::string& pattern) : pattern(pattern), handler{} {}

    ubus_listener_ctx(const ubus_listener_ctx&) = delete;
    ubus_listener_ctx& operator=(const ubus_listener_ctx&) = delete;

    const std::string pattern;
    /// The listener this registration delivers to.
    std::weak_ptr<listener_ctx> owner;
    ubus_event_handler handler;
};

/// A listener, as the caller's event loop knows it.
class client_impl::listener_ctx {
public:
    listener_ctx(const std::string& pattern, const event_handler& handler)
        : handler(handler), registration(std::make_shared<ubus_listener_ctx>(pattern)) {}

    event_handler handler;
    std::shared_ptr<ubus_listener_ctx> registration;
};

} // namespace orvix
