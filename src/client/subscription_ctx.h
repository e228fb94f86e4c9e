#pragma once

#include "client/client_impl.h"

#include <memory>
#include <string>

namespace orvix {

/// The libubus side of a subscription: libubus keeps pointers to `subscriber` while it
/// is registered, so the record never moves. Touched on the loop thread only, but for
/// `path` and `owner`, which never change.
class client_impl::ubus_subscription_ctx {
public:
    explicit ubus_subscription_ctx(const std::string& path) : path(path), subscriber{} {}

    ubus_subscription_ctx(const ubus_subscription_ctx&) = delete;
    ubus_subscription_ctx& operator=(const ubus_subscription_ctx&) = delete;

    const std::string path;
    /// The subscription this registration delivers to.
    std::weak_ptr<subscription_ctx> owner;
    ubus_subscriber subscriber;
};

/// A subscription, as the caller's event loop knows it.
class client_impl::subscription_ctx {
public:
    subscription_ctx(const std::string& path, const notification_handler& handler)
        : handler(handler), registration(std::make_shared<ubus_subscription_ctx>(path)) {}

    notification_handler handler;
    std::shared_ptr<ubus_subscription_ctx> registration;
};

} // namespace orvix
