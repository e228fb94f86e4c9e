#include "client/exchange_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/error.h>

#include <exception>
#include <iterator>
#include <utility>

namespace orvix {

client_impl::exchange_ctx::exchange_ctx(client_impl& client,
                                        const std::shared_ptr<ubus_request_data>& request,
                                        std::multimap<std::string, blob::attr>&& args)
    : client::exchange_ctx(std::move(args)), client(client), tracker(client.get_tracker()),
      connection(client.connection), request(request) {}

client_impl::exchange_ctx::~exchange_ctx() {
    try {
        respond(error::make_error_code(error::msg::success));
    } catch (...) {
        // A destructor must not throw; the call then simply stays unanswered, as it
        // would once its connection is gone.
    }
}

bool client_impl::exchange_ctx::expired() const {
    return connection.expired() || !client.is_active();
}

utils::link client_impl::exchange_ctx::send(const std::multimap<std::string, blob::attr>& data,
                                            const error_handler& handler) {
    if (tracker.expired()) {
        return {};
    }
    if (expired()) {
        return client.schedule_result(handler,
                                      error::make_error_code(error::msg::connection_failed));
    }
    utils::link lnk;
    std::weak_ptr<error_handler> holder;
    error_handler_list::iterator pos{};
    if (handler) {
        client.send_handlers.push_back(std::make_shared<error_handler>(handler));
        pos = std::prev(client.send_handlers.end());
        holder = *pos;
        lnk = client.pending_handler_link(client.send_handlers, pos);
    }
    auto& owner = client;
    client.post_to_uloop([&owner, weak = connection, req = request, data, pos, holder] {
        owner.send_reply_sync(weak, req, data, pos, holder);
    });
    return lnk;
}

void client_impl::exchange_ctx::respond(const std::error_code& status) {
    if (expired()) {
        return;
    }
    auto& owner = client;
    client.post_to_uloop([&owner, weak = connection, req = request, status] {
        owner.complete_request_sync(weak, req, to_ubus_msg_status(status));
    });
    connection.reset();
    request.reset();
}

} // namespace orvix
