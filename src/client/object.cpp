#include "client/client_impl.h"
#include "client/object_ctx.h"
#include "client/ubus_object_ctx.h"

#include <orvix/blob/utils.h>
#include <orvix/error.h>
#include <orvix/misc/link.h>

#include <iterator>
#include <utility>
#include <vector>

namespace orvix {

client_impl::object_ctx::object_ctx(const std::string& name, const method_table& methods)
    : name(name), methods(methods), registration(std::make_shared<ubus_object_ctx>(name, methods)) {
}

client_impl::ubus_object_ctx::ubus_object_ctx(const std::string& name,
                                              const method_table& described)
    : name(name), object{}, type{}, table(described) {
    for (const auto& method : table) {
        std::vector<blobmsg_policy> policy;
        for (const auto& arg : method.second.second) {
            policy.push_back({arg.first.c_str(), blob::utils::to_blobmsg_type(arg.second)});
        }
        policies.push_back(std::move(policy));
        ubus_method entry{};
        entry.name = method.first.c_str();
        entry.handler = &client_impl::method_callable;
        entry.policy = policies.back().data();
        entry.n_policy = static_cast<int>(policies.back().size());
        methods.push_back(entry);
    }
}

void client_impl::ubus_object_ctx::prepare() {
    type = ubus_object_type{};
    type.name = name.c_str();
    type.methods = methods.data();
    type.n_methods = static_cast<int>(methods.size());
    object = ubus_object{};
    object.name = name.c_str();
    object.type = &type;
    object.methods = methods.data();
    object.n_methods = static_cast<int>(methods.size());
    object.subscribe_cb = &client_impl::subscribers_callable;
}

utils::link client_impl::add_object(const std::string& name, const method_table& methods,
                                    const error_handler& handler) {
    if (!token) {
        return schedule_result(handler, error::make_error_code(error::generic::aborted));
    }
    if (find_published(name)) {
        return schedule_result(handler, error::make_error_code(error::msg::invalid_argument));
    }
    const auto ctx = std::make_shared<object_ctx>(name, methods);
    published_objects.emplace(&ctx->registration->object, ctx);
    add_handlers.push_back(std::make_shared<error_handler>(handler));
    const auto pos = std::prev(add_handlers.end());
    auto lnk = pending_handler_link(add_handlers, pos);
    post_to_uloop(
        [this, weak = std::weak_ptr<object_ctx>(ctx), pos,
         holder = std::weak_ptr<error_handler>(*pos)] { add_object_sync(weak, pos, holder); });
    return lnk;
}

utils::link client_impl::del_object(const std::string& name, bool keep,
                                    const error_handler& handler) {
    if (!token) {
        return schedule_result(handler, error::make_error_code(error::generic::aborted));
    }
    const auto ctx = find_published(name);
    if (!ctx) {
        return schedule_result(handler, error::make_error_code(error::msg::not_found));
    }
    ctx->keep = !keep;
    ctx->removing = true;
    del_handlers.push_back(std::make_shared<error_handler>(handler));
    const auto pos = std::prev(del_handlers.end());
    auto lnk = pending_handler_link(del_handlers, pos);
    post_to_uloop([this, ctx, pos, holder = std::weak_ptr<error_handler>(*pos)] {
        del_object_sync(ctx, pos, holder);
    });
    return lnk;
}

void client_impl::add_object_sync(const std::weak_ptr<object_ctx>& ctx,
                                  const error_handler_list::iterator& handler_pos,
                                  const std::weak_ptr<error_handler>& handler) {
    std::error_code ec = error::make_error_code(error::msg::connection_failed);
    if (const auto object = ctx.lock()) {
        ec = register_object_sync(object);
    }
    post_from_uloop([this, ctx, handler_pos, handler, ec] {
        on_object_added(ctx, ec);
        finish_pending(add_handlers, handler_pos, handler, ec);
    });
}

void client_impl::del_object_sync(const std::shared_ptr<object_ctx>& ctx,
                                  const error_handler_list::iterator& handler_pos,
                                  const std::weak_ptr<error_handler>& handler) {
    std::error_code ec = error::make_error_code(error::msg::connection_failed);
    if (ubus_context* bus = live_context_sync()) {
        const auto it = registered_objects.find(&ctx->registration->object);
        if (it == registered_objects.end()) {
            ec = error::make_error_code(error::msg::not_found);
        } else {
            const auto registration = std::move(it->second);
            registered_objects.erase(it);
            const int status = ubus_remove_object(bus, &registration->object);
            if (status != UBUS_STATUS_OK) {
                // libubus still holds the object; it stays with the context.
                registered_objects.emplace(&registration->object, registration);
            }
            ec = to_msg_error(status);
        }
    }
    post_from_uloop([this, ctx, handler_pos, handler, ec] {
        on_object_deleted(ctx, ec);
        finish_pending(del_handlers, handler_pos, handler, ec);
    });
}

std::error_code client_impl::register_object_sync(const std::shared_ptr<object_ctx>& ctx) {
    ubus_context* bus = live_context_sync();
    if (!bus) {
        return error::make_error_code(error::msg::connection_failed);
    }
    const auto& registration = ctx->registration;
    // A connection made while the add was on its way registers it as well.
    if (registered_objects.count(&registration->object) != 0) {
        return to_msg_error(UBUS_STATUS_OK);
    }
    registration->prepare();
    registered_objects.emplace(&registration->object, registration);
    const int status = ubus_add_object(bus, &registration->object);
    if (status != UBUS_STATUS_OK) {
        registered_objects.erase(&registration->object);
    }
    return to_msg_error(status);
}

void client_impl::register_published_objects() {
    std::vector<std::weak_ptr<object_ctx>> objects;
    for (const auto& entry : published_objects) {
        if (!entry.second->removing) {
            objects.push_back(entry.second);
        }
    }
    if (objects.empty()) {
        return;
    }
    post_to_uloop([this, objects] {
        for (const auto& weak : objects) {
            if (const auto ctx = weak.lock()) {
                register_object_sync(ctx);
            }
        }
    });
}

void client_impl::on_object_added(const std::weak_ptr<object_ctx>& ctx, const std::error_code& ec) {
    const auto object = ctx.lock();
    if (!object) {
        return;
    }
    object->adding = false;
    if (!ec) {
        return;
    }
    // A failed add leaves nothing behind, so that it may be retried.
    const auto it = published_objects.find(&object->registration->object);
    if (it != published_objects.end()) {
        published_objects.erase(it);
    }
}

void client_impl::on_object_deleted(const std::shared_ptr<object_ctx>& ctx,
                                    const std::error_code& ec) {
    const auto it = published_objects.find(&ctx->registration->object);
    if (it == published_objects.end() || !ctx->removing) {
        return;
    }
    if (!ec || ec == error::msg::not_found) {
        // Not found: the object was not on the bus, as between a new connection and
        // its registration; withdrawn all the same, so that it does not come back.
        published_objects.erase(it);
    } else if (ec == error::msg::connection_failed) {
        settle_removal(it);
    } else {
        ctx->removing = false;
    }
}

void client_impl::settle_removal(const object_map::iterator& it) {
    if (it->second->keep) {
        published_objects.erase(it);
    } else {
        it->second->removing = false;
    }
}

std::shared_ptr<client_impl::object_ctx>
client_impl::find_published(const std::string& name) const {
    for (const auto& entry : published_objects) {
        if (!entry.second->removing && entry.second->name == name) {
            return entry.second;
        }
    }
    return nullptr;
}

utils::link client_impl::pending_handler_link(error_handler_list& list,
                                              const error_handler_list::iterator& pos) {
    // The holder is the link's owner: the list holds the only strong reference, so
    // taking it out of the list ends the link.
    return misc::create_link(*pos, [&list, pos] { list.erase(pos); });
}

void client_impl::finish_pending(error_handler_list& list, const error_handler_list::iterator& pos,
                                 const std::weak_ptr<error_handler>& handler,
                                 const std::error_code& ec) {
    error_handler call;
    if (const auto holder = handler.lock()) {
        call = std::move(*holder);
        list.erase(pos);
    }
    if (call) {
        call(ec);
    }
}

} // namespace orvix
