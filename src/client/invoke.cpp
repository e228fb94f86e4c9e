#include "client/client_impl.h"
#include "client/invoke_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>
#include <orvix/error.h>
#include <orvix/misc/link.h>
#include <orvix/misc/link_handler.h>
#include <orvix/uloop.h>

#include <cstdint>
#include <utility>

namespace orvix {

utils::link client_impl::invoke(const std::string& object, const std::string& method,
                                const std::multimap<std::string, blob::attr>& args,
                                const invoke_handler& handler,
                                const std::chrono::seconds& timeout) {
    if (!token) {
        return schedule_result(handler, std::list<blob::attr>(),
                               error::make_error_code(error::generic::aborted));
    }
    // Zero-filled, and at a fixed address that keys the invoke on both threads.
    auto request = std::make_shared<ubus_request>();
    auto ctx = std::make_shared<invoke_ctx>();
    ctx->request = request;
    pending_invokes.emplace(request.get(), ctx);
    ctx->handler = handler;
    if (timeout.count() != 0) {
        ctx->timer = get_eloop()->make_timer();
        ctx->timer->expires_after(timeout);
        ctx->timer->wait([this, key = request.get()] { on_invoke_timeout(key); });
    }
    // The context is the link's owner: the invoke is pending exactly while it lives.
    auto lnk = misc::create_link(
        ctx, [this, weak = std::weak_ptr<invoke_ctx>(ctx)] { cancel_invoke(weak); });
    post_to_uloop(
        [this, object, method, args, request, weak = std::weak_ptr<invoke_ctx>(ctx)]() mutable {
            invoke_sync(object, method, args, request, weak);
        });
    return lnk;
}

void client_impl::invoke_sync(const std::string& object, const std::string& method,
                              const std::multimap<std::string, blob::attr>& args,
                              const std::shared_ptr<ubus_request>& request,
                              std::weak_ptr<invoke_ctx>& ctx) {
    const auto fail = [&](const std::error_code& ec) {
        request->priv = nullptr;
        post_from_uloop([this, ec, request, ctx] { finish_invoke(request.get(), ec); });
    };
    // libubus refuses a send on a broken socket as an invalid argument; when the socket
    // has just reached its end that is the connection failing, not the caller's mistake.
    const auto bus_error = [](ubus_context* bus, int status) {
        return bus->sock.eof ? error::make_error_code(error::msg::connection_failed)
                             : to_msg_error(status);
    };
    ubus_context* bus = live_context_sync();
    if (!bus) {
        fail(error::make_error_code(error::msg::connection_failed));
        return;
    }
    std::uint32_t id = 0;
    const int found = ubus_lookup_id(bus, object.c_str(), &id);
    if (found != UBUS_STATUS_OK) {
        fail(bus_error(bus, found));
        return;
    }
    blob::buf buf;
    try {
        buf = args;
    } catch (...) {
        fail(error::make_error_code(error::msg::parse_error));
        return;
    }
    const int started =
        ubus_invoke_async_fd(bus, id, method.c_str(), buf.native()->head, request.get(), -1);
    if (started != UBUS_STATUS_OK) {
        fail(bus_error(bus, started));
        return;
    }
    // Set only now: starting the request zeroes it.
    request->priv = this;
    request->data_cb = &client_impl::invoke_req_data_handler;
    request->complete_cb = &client_impl::invoke_req_done_handler;
    active_requests.emplace(request.get(), request);
    ubus_complete_request_async(bus, request.get());
}

void client_impl::invoke_req_data_handler(ubus_request* req, int, blob_attr* msg) {
    try {
        std::multimap<std::string, blob::attr> table;
        std::error_code ec;
        try {
            table = blob::utils::to_table(msg);
        } catch (...) {
            ec = error::make_error_code(error::msg::parse_error);
        }
        auto& self = get_instance({});
        const auto it = self.active_requests.find(req);
        if (it == self.active_requests.end()) {
            return;
        }
        self.post_from_uloop([&self, table = std::move(table), ec, request = it->second]() mutable {
            self.on_invoke_reply(request.get(), blob::attr(std::move(table)), ec);
        });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

void client_impl::invoke_req_done_handler(ubus_request* req, int ret) {
    try {
        const std::error_code ec = to_msg_error(ret);
        auto& self = get_instance({});
        const auto it = self.active_requests.find(req);
        if (it == self.active_requests.end()) {
            return;
        }
        auto request = std::move(it->second);
        self.active_requests.erase(it);
        self.post_from_uloop([&self, ec, request] { self.on_invoke_done(request.get(), ec); });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

void client_impl::on_invoke_reply(ubus_request* request, blob::attr&& reply,
                                  const std::error_code& ec) {
    const auto it = pending_invokes.find(request);
    if (it == pending_invokes.end()) {
        return;
    }
    auto& ctx = *it->second;
    ctx.replies.push_back(std::move(reply));
    if (ctx.error.value() == 0) {
        ctx.error = ec;
    }
}

void client_impl::on_invoke_done(ubus_request* request, const std::error_code& ec) {
    finish_invoke(request, ec, invoke_completion::with_replies_error);
}

void client_impl::on_invoke_timeout(ubus_request* request) {
    const auto it = pending_invokes.find(request);
    if (it == pending_invokes.end()) {
        return;
    }
    post_to_uloop([this, req = it->second->request] { abort_request_sync(req); });
    // Not checked for emptiness, unlike a completion: an invoke without a handler
    // that times out is a caller's mistake and surfaces as std::bad_function_call.
    finish_invoke(request, error::make_error_code(error::msg::timeout),
                  invoke_completion::handler_required);
}

bool client_impl::finish_invoke(ubus_request* request, const std::error_code& ec,
                                invoke_completion how) {
    const auto it = pending_invokes.find(request);
    if (it == pending_invokes.end()) {
        return false;
    }
    auto replies = std::move(it->second->replies);
    auto handler = std::move(it->second->handler);
    const std::error_code first_bad_reply = it->second->error;
    // Erasing drops the context, the owner of the invoke's link, so that the handler
    // finds its link inactive and may release it (or let a scoped_link go) freely.
    pending_invokes.erase(it);
    const std::error_code outcome =
        how == invoke_completion::with_replies_error && !ec ? first_bad_reply : ec;
    if (handler || how == invoke_completion::handler_required) {
        handler(replies, outcome);
    }
    return true;
}

void client_impl::cancel_invoke(const std::weak_ptr<invoke_ctx>& weak) {
    // Called by the link only while the context lives.
    const auto ctx = weak.lock();
    const auto request = std::move(ctx->request);
    pending_invokes.erase(request.get());
    post_to_uloop([this, request] { abort_request_sync(request); });
}

void client_impl::abort_request_sync(const std::shared_ptr<ubus_request>& request) {
    active_requests.erase(request.get());
    if (request->priv && bus_context) {
        ubus_abort_request(bus_context, request.get());
        request->priv = nullptr;
    }
}

} // namespace orvix
