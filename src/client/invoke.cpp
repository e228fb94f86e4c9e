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

namespace {

// libubus refuses a send on a broken socket as an invalid argument; when the socket has
// just reached its end that is the connection failing, not the caller's mistake.
std::error_code bus_error(const ubus_context* bus, int status) {
    return bus->sock.eof ? error::make_error_code(error::msg::connection_failed)
                         : client_impl::to_msg_error(status);
}

} // namespace

void client_impl::invoke_sync(const std::string& object, const std::string& method,
                              const std::multimap<std::string, blob::attr>& args,
                              const std::shared_ptr<ubus_request>& request,
                              std::weak_ptr<invoke_ctx>& ctx) {
    const auto fail = [&](const std::error_code& ec) {
        request->priv = nullptr;
        post_from_uloop([this, ec, request, ctx] { finish_invoke(request.get(), ec); });
    };
    ubus_context* bus = live_context_sync();
    if (!bus) {
        fail(error::make_error_code(error::msg::connection_failed));
        return;
    }
    const bool watching = object_ids.watch(bus);
    std::uint32_t id = object_ids.find(object);
    if (id == 0) {
        const int found = lookup_id_sync(bus, object, id);
        if (found != UBUS_STATUS_OK) {
            fail(bus_error(bus, found));
            return;
        }
    }
    blob::buf buf;
    try {
        buf = args;
    } catch (...) {
        fail(error::make_error_code(error::msg::parse_error));
        return;
    }
    blob_attr* message = buf.native()->head;
    const int started =
        start_invoke_sync(bus, request, id, method.c_str(), message,
                          watching ? retained_call(object, method, message) : retained_call());
    if (started != UBUS_STATUS_OK) {
        fail(bus_error(bus, started));
    }
}

int client_impl::lookup_id_sync(ubus_context* bus, const std::string& path, std::uint32_t& id) {
    id = 0;
    const int found = ubus_lookup_id(bus, path.c_str(), &id);
    if (found == UBUS_STATUS_OK) {
        object_ids.store(path, id);
    }
    return found;
}

int client_impl::start_invoke_sync(ubus_context* bus, const std::shared_ptr<ubus_request>& request,
                                   std::uint32_t id, const char* method, blob_attr* message,
                                   retained_call&& call) {
    const int started = ubus_invoke_async_fd(bus, id, method, message, request.get(), -1);
    if (started != UBUS_STATUS_OK) {
        return started;
    }
    // Set only now: starting the request zeroes it.
    request->priv = this;
    request->data_cb = &client_impl::invoke_req_data_handler;
    request->complete_cb = &client_impl::invoke_req_done_handler;
    auto& sent = active_requests[request.get()];
    sent.request = request;
    sent.call = std::move(call);
    // Kept only while the cache is in use: only then is a removal sure to be heard.
    sent.target = sent.call.empty() ? 0 : id;
    sent.target_removed = false;
    ubus_complete_request_async(bus, request.get());
    return UBUS_STATUS_OK;
}

void client_impl::retry_invoke_sync(const std::shared_ptr<ubus_request>& request) {
    // Gone if it was cancelled or timed out meanwhile, or went with its connection.
    const auto it = active_requests.find(request.get());
    if (it == active_requests.end()) {
        return;
    }
    const auto fail = [this, &request](const std::error_code& ec) {
        active_requests.erase(request.get());
        post_from_uloop([this, ec, request] { finish_invoke(request.get(), ec); });
    };
    ubus_context* bus = live_context_sync();
    if (!bus) {
        fail(error::make_error_code(error::msg::connection_failed));
        return;
    }
    // Not from the cache: this is the lookup the call would have had without it.
    retained_call call = std::move(it->second.call);
    std::uint32_t id = 0;
    const int found = lookup_id_sync(bus, call.path(), id);
    if (found != UBUS_STATUS_OK) {
        fail(bus_error(bus, found));
        return;
    }
    const std::string method = call.method();
    blob_attr* message = call.message();
    const int started =
        start_invoke_sync(bus, request, id, method.c_str(), message, std::move(call));
    if (started != UBUS_STATUS_OK) {
        fail(bus_error(bus, started));
    }
}

void client_impl::on_object_removed_sync(std::uint32_t id) {
    for (auto& entry : active_requests) {
        if (entry.second.target == id) {
            entry.second.target_removed = true;
        }
    }
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
        self.post_from_uloop(
            [&self, table = std::move(table), ec, request = it->second.request]() mutable {
                self.on_invoke_reply(request.get(), blob::attr(std::move(table)), ec);
            });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

void client_impl::invoke_req_done_handler(ubus_request* req, int ret) {
    try {
        auto& self = get_instance({});
        const auto it = self.active_requests.find(req);
        if (it == self.active_requests.end()) {
            return;
        }
        auto& sent = it->second;
        if (ret == UBUS_STATUS_NOT_FOUND && sent.target != 0) {
            if (sent.target_removed && !sent.retried) {
                // The removal ran before this answer, and the daemon passes on no answer of
                // an object that is gone: the "Not found" is its own, the call reached no
                // method. It goes again, once; it stays listed meanwhile, so that a cancel,
                // a timeout or the end of the connection still ends it.
                sent.retried = true;
                sent.target = 0;
                req->priv = nullptr;
                const auto request = sent.request;
                self.post_from_uloop([&self, request] { self.on_invoke_retried(request.get()); });
                uloop::get_instance().post([&self, request] { self.retry_invoke_sync(request); });
                return;
            }
            // Perhaps the method's own answer, which the handler gets as it is. If it was the
            // daemon's, the object had gone unannounced (the daemon drops an event that does
            // not fit this client's queue); the entry must not fail every later call too.
            self.object_ids.drop(sent.call.path(), sent.target);
        }
        auto request = std::move(sent.request);
        self.active_requests.erase(it);
        const std::error_code ec = to_msg_error(ret);
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

void client_impl::on_invoke_retried(ubus_request* request) {
    const auto it = pending_invokes.find(request);
    if (it == pending_invokes.end()) {
        return;
    }
    // A call the daemon found no object for got no reply of a method; anything that came
    // for it was not the method's, and the handler sees only what the call sent again brings.
    it->second->replies.clear();
    it->second->error = std::error_code(0, std::system_category());
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
