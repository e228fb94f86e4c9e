#include "client/client_impl.h"
#include "client/invoke_ctx.h"
#include "client/object_ctx.h"
#include "client/ubus_object_ctx.h"
#include "uloop/uloop_signals.h"

#include <orvix/error.h>
#include <orvix/misc/link.h>
#include <orvix/uloop.h>

#include <climits>
#include <utility>
#include <vector>

namespace orvix {

utils::link client_impl::connect(const error_handler& handler) {
    disable_auto_connect();
    if (!token) {
        return handler ? connect_handlers.connect(handler) : utils::link();
    }
    if (current_state != state::connected) {
        auto lnk = handler ? connect_handlers.connect(handler) : utils::link();
        connect_impl();
        return lnk;
    }
    return schedule_result(handler, std::error_code());
}

utils::link
client_impl::auto_connect(const std::function<std::chrono::seconds(long long)>& backoff_fn) {
    disable_auto_connect();
    backoff = std::make_shared<std::function<std::chrono::seconds(long long)>>(backoff_fn);
    if (!backoff_fn) {
        return {};
    }
    auto lnk = misc::create_link(backoff, [this] { disable_auto_connect(); });
    connect_impl();
    return lnk;
}

utils::link client_impl::disconnect(const error_handler& handler) {
    disable_auto_connect();
    if (!token) {
        return handler ? disconnect_handlers.connect(handler) : utils::link();
    }
    if (current_state == state::disconnected) {
        return schedule_result(handler, std::error_code());
    }
    auto lnk = handler ? disconnect_handlers.connect(handler) : utils::link();
    if (current_state == state::connecting) {
        on_state_change(state::disconnecting);
    } else if (current_state == state::connected) {
        request_disconnect();
    }
    return lnk;
}

void client_impl::disable_auto_connect() {
    if (token) {
        reconnect_timer->stop();
    }
    attempts = 0;
    backoff.reset();
}

utils::link client_impl::notify_on_state_change(const std::function<void(state)>& handler) {
    return state_handlers.connect(handler);
}

client::state client_impl::get_state() const {
    return current_state;
}

bool client_impl::is_active() const {
    return current_state == state::connected;
}

void client_impl::set_socket_path(const std::string& path) {
    socket_path = path;
}

std::string client_impl::get_socket_path() const {
    return socket_path;
}

void client_impl::connect_impl() {
    if (!token || current_state == state::connected) {
        return;
    }
    if (current_state == state::disconnecting) {
        // The disconnect in flight is followed by the connection.
        on_state_change(state::connecting);
    } else if (current_state == state::disconnected) {
        request_connection();
    }
}

void client_impl::request_connection() {
    post_to_uloop([this, path = socket_path] { connect_sync(path); });
    on_state_change(state::connecting);
}

void client_impl::request_disconnect() {
    connection.reset();
    post_to_uloop([this] { disconnect_sync(); });
    on_state_change(state::disconnecting);
}

void client_impl::on_state_change(state s) {
    if (s == current_state) {
        return;
    }
    current_state = s;
    if (s == state::connected) {
        attempts = 0;
    }
    if (s == state::disconnected && backoff && *backoff) {
        if (attempts != LLONG_MAX) {
            ++attempts;
        }
        // A copy, in case the back-off function replaces itself.
        const auto fn = backoff;
        const auto delay = (*fn)(attempts);
        if (delay >= std::chrono::seconds(1)) {
            reconnect_timer->expires_after(delay);
        } else {
            disable_auto_connect();
        }
    }
    notify_all(state_handlers, s);
}

namespace {

// Completion handlers are one-shot: they leave the signal before any of them runs, so
// that their links report inactive and a handler that asks again is kept for later.
std::vector<client_impl::error_handler>
take_handlers(misc::signal<void, const std::error_code&>& done) {
    std::vector<client_impl::error_handler> handlers;
    for (auto& subscriber : done.subscribers()) {
        handlers.push_back(std::move(*subscriber));
    }
    done.subscribers().clear();
    return handlers;
}

void call_handlers(const std::vector<client_impl::error_handler>& handlers,
                   const std::error_code& ec) {
    for (const auto& handler : handlers) {
        if (handler) {
            handler(ec);
        }
    }
}

} // namespace

void client_impl::on_req_done(misc::signal<void, const std::error_code&>& done, state s,
                              const std::error_code& ec) {
    on_state_change(s);
    call_handlers(take_handlers(done), ec);
}

void client_impl::cancel() {
    disable_auto_connect();
    std::atomic_store(&token, std::shared_ptr<void>());
    request_disconnect();
    for (auto& entry : published_objects) {
        entry.second->keep = false;
    }
    {
        std::lock_guard<std::mutex> lock(gate_mutex);
        drain_hold = true;
    }
    const std::error_code aborted = error::make_error_code(error::generic::aborted);
    abandon_pending(aborted);
    process_task_queue();
    on_req_done(disconnect_handlers, state::disconnected, std::error_code());
    on_req_done(connect_handlers, state::disconnected, aborted);
    std::atomic_store(&token, std::shared_ptr<void>(std::make_shared<char>(0)));
    // Posted directly, so as not to release the drain hold: the loop thread's results
    // count again from here on.
    uloop::get_instance().post([this, epoch = get_tracker()] { epoch_sync = epoch; });
    post([this] { process_task_queue(); });
}

void client_impl::abandon_pending(const std::error_code& ec) {
    while (!waits.empty()) {
        finish_wait(waits.begin()->first, ec);
    }
    for (auto it = published_objects.begin(); it != published_objects.end();) {
        if (it->second->adding) {
            it = published_objects.erase(it);
            continue;
        }
        it->second->removing = false;
        ++it;
    }
    while (!pending_invokes.empty()) {
        finish_invoke(pending_invokes.begin()->first, ec);
    }
    for (auto* pending : {&add_handlers, &del_handlers, &send_handlers, &event_handlers,
                          &lookup_handlers, &notify_handlers}) {
        while (!pending->empty()) {
            error_handler handler = std::move(*pending->front());
            pending->pop_front();
            if (handler) {
                handler(ec);
            }
        }
    }
}

void client_impl::on_loop_failed(const freed_context& freed) {
    disable_auto_connect();
    connection.reset();
    on_context_freed(freed);
    abandon_pending(error::make_error_code(error::msg::connection_failed));
    const auto connects = take_handlers(connect_handlers);
    const auto disconnects = take_handlers(disconnect_handlers);
    on_state_change(state::disconnected);
    call_handlers(disconnects, std::error_code());
    call_handlers(connects, error::make_error_code(error::generic::unknown_error));
}

void client_impl::on_connect_done(bool connected) {
    const std::error_code ec =
        connected ? std::error_code() : error::make_error_code(error::generic::unknown_error);
    if (current_state == state::disconnecting) {
        // A disconnect came in while connecting. It is under way before any handler
        // runs, so that a handler asking to connect again is served after it.
        if (connected) {
            request_disconnect();
            call_handlers(take_handlers(connect_handlers), ec);
            return;
        }
        const auto connects = take_handlers(connect_handlers);
        const auto disconnects = take_handlers(disconnect_handlers);
        on_state_change(state::disconnected);
        call_handlers(connects, ec);
        call_handlers(disconnects, std::error_code());
        return;
    }
    if (connected) {
        connection = std::make_shared<char>(0);
        register_published_objects();
        register_listeners();
        register_subscriptions();
    }
    on_req_done(connect_handlers, connected ? state::connected : state::disconnected, ec);
}

void client_impl::on_disconnect_done() {
    if (current_state == state::connecting) {
        // A connect came in while disconnecting; it is under way before any handler
        // runs, so that a handler asking to disconnect again is served after it.
        request_connection();
        call_handlers(take_handlers(disconnect_handlers), std::error_code());
        return;
    }
    on_req_done(disconnect_handlers, state::disconnected, std::error_code());
}

void client_impl::on_connection_lost() {
    // Without the token a disconnect has already taken charge of this connection.
    if (!connection) {
        return;
    }
    connection.reset();
    on_state_change(state::disconnected);
}

void client_impl::on_context_freed(const freed_context& freed) {
    for (const auto& entry : freed.requests) {
        finish_invoke(entry.first, error::make_error_code(error::msg::connection_failed));
    }
    for (const auto& entry : freed.notifies) {
        finish_pending(notify_handlers, entry.second.pos, entry.second.handler,
                       error::make_error_code(error::msg::connection_failed));
    }
    for (const auto& name : freed.subscribed) {
        on_subscribers(name, false);
    }
    for (const auto& entry : freed.objects) {
        const auto it = published_objects.find(entry.first);
        if (it != published_objects.end() && it->second->removing) {
            settle_removal(it);
        }
    }
}

ubus_context* client_impl::live_context_sync() const {
    return bus_context && !bus_context->sock.eof ? bus_context : nullptr;
}

void client_impl::connect_sync(const std::string& path) {
    object_ids.reset();
    {
        // ubus_connect runs uloop_init, which takes the program's signals again.
        auto actions = save_uloop_signals();
        bus_context = ubus_connect(path.empty() ? nullptr : path.c_str());
        actions.restore();
    }
    if (bus_context) {
        bus_context->connection_lost = &client_impl::connection_lost_handler;
        if (uloop_fd_add(&bus_context->sock, ULOOP_READ | ULOOP_BLOCKING) < 0) {
            ubus_free(bus_context);
            bus_context = nullptr;
        }
    }
    const bool connected = bus_context != nullptr;
    post_from_uloop([this, connected] { on_connect_done(connected); });
}

void client_impl::disconnect_sync() {
    post_from_uloop([this, freed = free_context_sync()] {
        on_context_freed(freed);
        on_disconnect_done();
    });
}

void client_impl::lost_context_sync(ubus_context* lost) {
    // Only if that context is still the current one and has really gone: a disconnect
    // may have freed it meanwhile, and a new connection may even have its address.
    if (bus_context != lost || !lost->sock.eof) {
        return;
    }
    lose_context_sync();
}

void client_impl::lose_context_sync() {
    post_from_uloop([this, freed = free_context_sync()] {
        on_context_freed(freed);
        on_connection_lost();
    });
}

client_impl::freed_context client_impl::free_context_sync() {
    if (bus_context) {
        uloop_fd_delete(&bus_context->sock);
        ubus_free(bus_context);
        bus_context = nullptr;
    }
    // Requests still listed went with the context: nothing may abort them any more.
    for (auto& entry : active_requests) {
        entry.second.request->priv = nullptr;
    }
    // Ids of another connection may name other objects, or none, after a new daemon.
    object_ids.reset();
    freed_context freed;
    for (const auto& entry : registered_objects) {
        if (entry.first->has_subscribers) {
            entry.first->has_subscribers = false;
            freed.subscribed.push_back(entry.second->name);
        }
    }
    freed.requests.swap(active_requests);
    freed.objects.swap(registered_objects);
    freed.listeners.swap(registered_listeners);
    freed.subscriptions.swap(registered_subscriptions);
    freed.notifies.swap(active_notifies);
    return freed;
}

void client_impl::connection_lost_handler(ubus_context* ctx) {
    try {
        // libubus may still use the context after this returns, so it is only taken
        // off the loop here and freed by a task that runs afterwards.
        uloop_fd_delete(&ctx->sock);
        auto& self = get_instance({});
        uloop::get_instance().post([&self, ctx] { self.lost_context_sync(ctx); });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

} // namespace orvix
