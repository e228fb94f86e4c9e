#include "client/client_impl.h"
#include "client/listener_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>
#include <orvix/error.h>
#include <orvix/misc/link.h>
#include <orvix/uloop.h>

#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace orvix {

utils::link client_impl::send_event(const std::string& type,
                                    const std::multimap<std::string, blob::attr>& data,
                                    const error_handler& handler) {
    if (!token) {
        return schedule_result(handler, error::make_error_code(error::generic::aborted));
    }
    event_handlers.push_back(std::make_shared<error_handler>(handler));
    const auto pos = std::prev(event_handlers.end());
    auto lnk = pending_handler_link(event_handlers, pos);
    post_to_uloop([this, type, data, pos, holder = std::weak_ptr<error_handler>(*pos)] {
        send_event_sync(type, data, pos, holder);
    });
    return lnk;
}

void client_impl::send_event_sync(const std::string& type,
                                  const std::multimap<std::string, blob::attr>& data,
                                  const error_handler_list::iterator& pos,
                                  const std::weak_ptr<error_handler>& handler) {
    std::error_code ec = error::make_error_code(error::msg::connection_failed);
    if (ubus_context* bus = live_context_sync()) {
        try {
            blob::buf message(data);
            ec = to_msg_error(ubus_send_event(bus, type.c_str(), message.native()->head));
        } catch (const std::exception&) {
            ec = error::make_error_code(error::msg::parse_error);
        }
    }
    post_from_uloop([this, pos, handler, ec] { finish_pending(event_handlers, pos, handler, ec); });
}

utils::link client_impl::listen(const std::string& pattern, const event_handler& handler) {
    // The daemon refuses an empty pattern, and nothing would tell the caller so.
    if (pattern.empty()) {
        throw std::invalid_argument(prefix + "Empty event pattern");
    }
    const auto ctx = std::make_shared<listener_ctx>(pattern, handler);
    ctx->registration->owner = ctx;
    listeners.emplace(ctx.get(), ctx);
    // The context is the link's owner: the listener lives exactly while it is listed.
    auto lnk = misc::create_link(ctx, [this, key = ctx.get()] { stop_listening(key); });
    post_to_uloop([this, registration = ctx->registration] { listen_sync(registration); });
    return lnk;
}

void client_impl::stop_listening(listener_ctx* key) {
    const auto it = listeners.find(key);
    const auto registration = it->second->registration;
    listeners.erase(it);
    post_to_uloop([this, registration] {
        ubus_context* bus = live_context_sync();
        if (registered_listeners.erase(&registration->handler) != 0 && bus) {
            ubus_unregister_event_handler(bus, &registration->handler);
        }
    });
}

void client_impl::listen_sync(const std::shared_ptr<ubus_listener_ctx>& registration) {
    ubus_context* bus = live_context_sync();
    // A connection made while the listener was on its way registers it as well.
    if (!bus || registered_listeners.count(&registration->handler) != 0) {
        return;
    }
    // Laid out afresh: an id that an earlier connection gave is void.
    registration->handler = ubus_event_handler{};
    registration->handler.cb = &client_impl::event_callable;
    registered_listeners.emplace(&registration->handler, registration);
    if (ubus_register_event_handler(bus, &registration->handler, registration->pattern.c_str()) !=
        UBUS_STATUS_OK) {
        // libubus keeps the object it added even when the daemon refuses the pattern.
        registered_listeners.erase(&registration->handler);
        if (registration->handler.obj.id != 0) {
            ubus_remove_object(bus, &registration->handler.obj);
        }
    }
}

void client_impl::register_listeners() {
    std::vector<std::shared_ptr<ubus_listener_ctx>> registrations;
    for (const auto& entry : listeners) {
        registrations.push_back(entry.second->registration);
    }
    if (registrations.empty()) {
        return;
    }
    post_to_uloop([this, registrations] {
        for (const auto& registration : registrations) {
            listen_sync(registration);
        }
    });
}

void client_impl::event_callable(ubus_context*, ubus_event_handler* ev, const char* type,
                                 blob_attr* msg) {
    try {
        auto& self = get_instance({});
        const auto it = self.registered_listeners.find(ev);
        if (it == self.registered_listeners.end()) {
            return;
        }
        std::multimap<std::string, blob::attr> data;
        try {
            data = blob::utils::to_table(msg);
        } catch (const std::exception&) {
            // An event whose data cannot be read is dropped: there is no one to tell.
            return;
        }
        self.post_from_uloop(
            [&self, owner = it->second->owner, name = std::string(type), data = std::move(data)] {
                event_handler handler;
                {
                    // Not held while the handler runs, so that it may release its own link.
                    const auto listener = owner.lock();
                    if (!listener || self.listeners.count(listener.get()) == 0) {
                        return;
                    }
                    handler = listener->handler;
                }
                if (handler) {
                    handler(name, data);
                }
            });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

} // namespace orvix
