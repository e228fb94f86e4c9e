#pragma once

#include "client/client_impl.h"

#include <map>
#include <memory>
#include <string>

namespace orvix {

/// One served call whose reply libubus was told to wait for. Used on the caller's
/// event loop; the replies themselves are written on the loop thread.
class client_impl::exchange_ctx : public client::exchange_ctx {
public:
    exchange_ctx(client_impl& client, const std::shared_ptr<ubus_request_data>& request,
                 std::multimap<std::string, blob::attr>&& args);
    /// Completes a call that was never answered with success.
    ~exchange_ctx() override;

    bool expired() const override;
    utils::link send(const std::multimap<std::string, blob::attr>& data,
                     const error_handler& handler) override;
    void respond(const std::error_code& status) override;

private:
    client_impl& client;
    std::weak_ptr<void> tracker;
    /// The connection that delivered the call; replies go nowhere else.
    std::weak_ptr<void> connection;
    std::shared_ptr<ubus_request_data> request;
};

} // namespace orvix
