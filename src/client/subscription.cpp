#include "client/client_impl.h"
#include "client/exchange_ctx.h"
#include "client/object_ctx.h"
#include "client/subscription_ctx.h"
#include "client/ubus_object_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>
#include <orvix/error.h>
#include <orvix/misc/link.h>
#include <orvix/uloop.h>

#include <exception>
#include <iterator>
#include <utility>
#include <vector>

namespace orvix {

utils::link client_impl::subscribe(const std::string& path, const notification_handler& handler) {
    const auto ctx = std::make_shared<subscription_ctx>(path, handler);
    ctx->registration->owner = ctx;
    subscriptions.emplace(ctx.get(), ctx);
    // The context is the link's owner: the subscription lives exactly while it is listed.
    auto lnk = misc::create_link(ctx, [this, key = ctx.get()] { unsubscribe(key); });
    post_to_uloop([this, registration = ctx->registration] { subscribe_sync(registration); });
    return lnk;
}

void client_impl::unsubscribe(subscription_ctx* key) {
    const auto it = subscriptions.find(key);
    const auto registration = it->second->registration;
    subscriptions.erase(it);
    post_to_uloop([this, registration] {
        ubus_context* bus = live_context_sync();
        if (registered_subscriptions.erase(&registration->subscriber) != 0 && bus) {
            ubus_unregister_subscriber(bus, &registration->subscriber);
        }
    });
}

void client_impl::subscribe_sync(const std::shared_ptr<ubus_subscription_ctx>& registration) {
    ubus_context* bus = live_context_sync();
    // A connection made while the subscription was on its way registers it as well.
    if (!bus || registered_subscriptions.count(&registration->subscriber) != 0) {
        return;
    }
    // Laid out afresh: what an earlier connection gave is void. libubus subscribes to the
    // object now if it is there, and each time an object is published under the path.
    registration->subscriber = ubus_subscriber{};
    registration->subscriber.cb = &client_impl::notification_callable;
    registration->subscriber.new_obj_cb = &client_impl::new_object_callable;
    registered_subscriptions.emplace(&registration->subscriber, registration);
    if (ubus_register_subscriber(bus, &registration->subscriber) != UBUS_STATUS_OK) {
        // Taken out of the context's lists again, since the record may be freed.
        registered_subscriptions.erase(&registration->subscriber);
        ubus_unregister_subscriber(bus, &registration->subscriber);
    }
}

void client_impl::register_subscriptions() {
    std::vector<std::shared_ptr<ubus_subscription_ctx>> registrations;
    for (const auto& entry : subscriptions) {
        registrations.push_back(entry.second->registration);
    }
    if (registrations.empty()) {
        return;
    }
    post_to_uloop([this, registrations] {
        for (const auto& registration : registrations) {
            subscribe_sync(registration);
        }
    });
}

bool client_impl::new_object_callable(ubus_context*, ubus_subscriber* sub, const char* path) {
    auto& self = get_instance({});
    const auto it = self.registered_subscriptions.find(sub);
    return it != self.registered_subscriptions.end() && it->second->path == path;
}

int client_impl::notification_callable(ubus_context*, ubus_object* obj, ubus_request_data* req,
                                       const char* type, blob_attr* msg) {
    try {
        auto& self = get_instance({});
        const auto it = self.registered_subscriptions.find(container_of(obj, ubus_subscriber, obj));
        if (it == self.registered_subscriptions.end()) {
            return UBUS_STATUS_NOT_FOUND;
        }
        std::multimap<std::string, blob::attr> data;
        try {
            data = blob::utils::to_table(msg);
        } catch (const std::exception&) {
            return to_ubus_msg_status(error::make_error_code(error::msg::parse_error));
        }
        // Deferred, as a served call is, so that the handler may answer later.
        const auto request = std::make_shared<ubus_request_data>(*req);
        req->deferred = true;
        self.post_from_uloop([&self, owner = it->second->owner, name = std::string(type),
                              data = std::move(data), request]() mutable {
            self.dispatch_notification(owner, name, std::move(data), request);
        });
        return UBUS_STATUS_OK;
    } catch (...) {
        uloop::get_instance().exception_handler();
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
}

void client_impl::dispatch_notification(const std::weak_ptr<subscription_ctx>& owner,
                                        const std::string& type,
                                        std::multimap<std::string, blob::attr>&& data,
                                        const std::shared_ptr<ubus_request_data>& request) {
    notification_handler handler;
    {
        // Not held while the handler runs, so that it may release its own link.
        const auto subscription = owner.lock();
        if (subscription && subscriptions.count(subscription.get()) != 0) {
            handler = subscription->handler;
        }
    }
    if (!handler) {
        post_to_uloop([this, weak = std::weak_ptr<void>(connection), request] {
            complete_request_sync(weak, request, UBUS_STATUS_NOT_FOUND);
        });
        return;
    }
    handler(type, std::make_shared<exchange_ctx>(*this, request, std::move(data)));
}

utils::link client_impl::notify(const std::string& name, const std::string& type,
                                const std::multimap<std::string, blob::attr>& data,
                                const error_handler& handler,
                                const std::chrono::milliseconds& timeout) {
    if (!token) {
        return schedule_result(handler, error::make_error_code(error::generic::aborted));
    }
    const auto object = find_published(name);
    if (!object) {
        return schedule_result(handler, error::make_error_code(error::msg::not_found));
    }
    auto request = std::make_shared<ubus_notify_request>();
    std::shared_ptr<utils::timer> timer;
    if (timeout.count() > 0) {
        timer = get_eloop()->make_timer();
    }
    // The timer goes with the handler, so that whichever ends the notification first
    // disarms the other.
    notify_handlers.push_back(
        std::make_shared<error_handler>([handler, timer](const std::error_code& ec) {
            if (handler) {
                handler(ec);
            }
        }));
    const auto pos = std::prev(notify_handlers.end());
    const std::weak_ptr<error_handler> holder = *pos;
    auto lnk = pending_handler_link(notify_handlers, pos);
    if (timer) {
        timer->wait([this, pos, holder, request] {
            post_to_uloop([this, request] { abort_notify_sync(request.get()); });
            finish_pending(notify_handlers, pos, holder,
                           error::make_error_code(error::msg::timeout));
        });
        timer->expires_after(timeout);
    }
    post_to_uloop([this, registration = object->registration, type, data, request,
                   wait = timeout.count() >= 0, pos,
                   holder] { notify_sync(registration, type, data, request, wait, pos, holder); });
    return lnk;
}

void client_impl::notify_sync(const std::shared_ptr<ubus_object_ctx>& registration,
                              const std::string& type,
                              const std::multimap<std::string, blob::attr>& data,
                              const std::shared_ptr<ubus_notify_request>& request, bool wait,
                              const error_handler_list::iterator& pos,
                              const std::weak_ptr<error_handler>& handler) {
    std::error_code ec = error::make_error_code(error::msg::connection_failed);
    ubus_context* bus = live_context_sync();
    if (bus && registered_objects.count(&registration->object) == 0) {
        ec = error::make_error_code(error::msg::not_found);
    } else if (bus) {
        try {
            blob::buf message(data);
            if (!wait) {
                ec = to_msg_error(ubus_notify(bus, &registration->object, type.c_str(),
                                              message.native()->head, -1));
            } else {
                const int status = ubus_notify_async(bus, &registration->object, type.c_str(),
                                                     message.native()->head, request.get());
                ec = to_msg_error(status);
                if (status == UBUS_STATUS_OK) {
                    request->complete_cb = &client_impl::notify_done_callable;
                    active_notifies.emplace(request.get(), active_notify{request, pos, handler});
                    ubus_complete_request_async(bus, &request->req);
                    return;
                }
            }
        } catch (const std::exception&) {
            ec = error::make_error_code(error::msg::parse_error);
        }
    }
    post_from_uloop(
        [this, pos, handler, ec] { finish_pending(notify_handlers, pos, handler, ec); });
}

void client_impl::notify_done_callable(ubus_notify_request* req, int, int) {
    try {
        auto& self = get_instance({});
        const auto it = self.active_notifies.find(req);
        if (it == self.active_notifies.end()) {
            return;
        }
        const auto done = std::move(it->second);
        self.active_notifies.erase(it);
        const std::error_code ec = to_msg_error(req->req.status_code);
        self.post_from_uloop([&self, done, ec] {
            self.finish_pending(self.notify_handlers, done.pos, done.handler, ec);
        });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

void client_impl::abort_notify_sync(ubus_notify_request* request) {
    if (active_notifies.erase(request) != 0 && bus_context) {
        ubus_abort_request(bus_context, &request->req);
    }
}

utils::link client_impl::notify_on_subscribers(const std::string& name,
                                               const std::function<void(bool)>& handler) {
    return subscriber_watchers[name].connect(handler);
}

void client_impl::on_subscribers(const std::string& name, bool active) {
    const auto watchers = subscriber_watchers.find(name);
    if (watchers != subscriber_watchers.end()) {
        notify_all(watchers->second, active);
    }
}

void client_impl::subscribers_callable(ubus_context*, ubus_object* obj) {
    try {
        auto& self = get_instance({});
        const auto it = self.registered_objects.find(obj);
        if (it == self.registered_objects.end()) {
            return;
        }
        self.post_from_uloop([&self, name = it->second->name, active = obj->has_subscribers] {
            self.on_subscribers(name, active);
        });
    } catch (...) {
        uloop::get_instance().exception_handler();
    }
}

} // namespace orvix
