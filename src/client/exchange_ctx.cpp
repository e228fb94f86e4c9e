#include "client/exchange_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/error.h>
#include <orvix/misc/link.h>

#include <exception>
#include <iterator>
#include <utility>

namespace orvix {

/// One after() call. The context holds it and it holds the context: the cycle keeps the
/// call open until the timer's function or the link's release breaks it. The timer's
/// function sees it only weakly, so that the context alone owns the timer.
struct client_impl::exchange_ctx::delayed {
    std::shared_ptr<exchange_ctx> owner;
    std::function<void(const std::shared_ptr<client::exchange_ctx>&)> then;
    std::shared_ptr<utils::timer> timer;
    delayed_list::iterator pos;
};

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

utils::link client_impl::exchange_ctx::after(
    std::chrono::milliseconds delay,
    const std::function<void(const std::shared_ptr<client::exchange_ctx>&)>& then) {
    auto timer = client.get_eloop()->make_timer();
    const auto entry = std::make_shared<delayed>(
        delayed{shared_from_this(), then, timer, delayed_list::iterator{}});
    entry->pos = pending_delays.insert(pending_delays.end(), entry);
    const std::weak_ptr<delayed> weak = entry;
    timer->wait([weak] {
        auto live = weak.lock();
        if (!live) {
            return;
        }
        // The entry goes before `then` runs, so that its link is over and `then` may
        // release it; the timer, whose function this is, goes when it returns.
        const auto ctx = std::move(live->owner);
        const auto run = std::move(live->then);
        const auto expiring = std::move(live->timer);
        ctx->pending_delays.erase(live->pos);
        live.reset();
        if (run) {
            run(ctx);
        }
    });
    timer->expires_after(delay);
    return misc::create_link(entry, [weak] {
        const auto live = weak.lock();
        // Held here: the context, which may go with this last reference and answer the
        // call, must outlive the change to its own list.
        const auto ctx = std::move(live->owner);
        ctx->pending_delays.erase(live->pos);
    });
}

} // namespace orvix
