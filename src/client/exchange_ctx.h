#pragma once

#include "client/client_impl.h"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace orvix {

/// One served call whose reply libubus was told to wait for. Used on the caller's
/// event loop; the replies themselves are written on the loop thread.
class client_impl::exchange_ctx : public client::exchange_ctx,
                                  public std::enable_shared_from_this<client_impl::exchange_ctx> {
public:
    exchange_ctx(client_impl& client, const std::shared_ptr<ubus_request_data>& request,
                 std::multimap<std::string, blob::attr>&& args);
    /// Completes a call that was never answered with success.
    ~exchange_ctx() override;

    bool expired() const override;
    utils::link send(const std::multimap<std::string, blob::attr>& data,
                     const error_handler& handler) override;
    void respond(const std::error_code& status) override;
    utils::link
    after(std::chrono::milliseconds delay,
          const std::function<void(const std::shared_ptr<client::exchange_ctx>&)>& then) override;

private:
    struct delayed;
    using delayed_list = std::list<std::shared_ptr<delayed>>;

    client_impl& client;
    std::weak_ptr<void> tracker;
    /// The connection that delivered the call; replies go nowhere else.
    std::weak_ptr<void> connection;
    std::shared_ptr<ubus_request_data> request;
    /// The pending after() calls, each holding this context until it runs or is released.
    delayed_list pending_delays;
};

} // namespace orvix
