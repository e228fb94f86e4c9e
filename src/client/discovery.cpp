#include "client/client_impl.h"

#include <orvix/error.h>
#include <orvix/misc/link.h>
#include <orvix/uloop.h>

#include <iterator>
#include <set>
#include <typeindex>
#include <utility>
#include <vector>

namespace orvix {

namespace {

// The value kind an argument of blobmsg type `type` is read into.
std::type_index kind_of(std::uint32_t type) {
    switch (type) {
    case BLOBMSG_TYPE_ARRAY:
        return typeid(blob::array);
    case BLOBMSG_TYPE_TABLE:
        return typeid(blob::table);
    case BLOBMSG_TYPE_STRING:
        return typeid(std::string);
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_CAST_INT64:
        return typeid(unsigned long long);
    case BLOBMSG_TYPE_INT32:
        return typeid(unsigned int);
    case BLOBMSG_TYPE_INT16:
        return typeid(unsigned short);
    case BLOBMSG_TYPE_INT8:
        return typeid(bool);
    case BLOBMSG_TYPE_DOUBLE:
        return typeid(double);
    default:
        return typeid(std::vector<unsigned char>);
    }
}

} // namespace

/// One wait_for, on the caller's event loop.
struct client_impl::wait_ctx {
    std::set<std::string> missing;
    error_handler handler;
    std::shared_ptr<utils::timer> timer;
    utils::link listening;
    utils::link watching;
    std::vector<utils::link> lookups;
};

utils::link client_impl::lookup(const std::string& pattern, const lookup_handler& handler) {
    if (!token) {
        return schedule_result(handler, std::list<object_info>(),
                               error::make_error_code(error::generic::aborted));
    }
    // The objects reach the handler through the pending entry, which takes only the
    // outcome, so that cancel() and a failing loop end lookups like everything else.
    auto found = std::make_shared<std::list<object_info>>();
    lookup_handlers.push_back(
        std::make_shared<error_handler>([handler, found](const std::error_code& ec) {
            if (handler) {
                handler(*found, ec);
            }
        }));
    const auto pos = std::prev(lookup_handlers.end());
    auto lnk = pending_handler_link(lookup_handlers, pos);
    post_to_uloop([this, pattern, found, pos, holder = std::weak_ptr<error_handler>(*pos)] {
        std::list<object_info> objects;
        std::error_code ec = error::make_error_code(error::msg::connection_failed);
        if (ubus_context* bus = live_context_sync()) {
            ec = to_msg_error(
                ubus_lookup(bus, pattern.c_str(), &client_impl::lookup_callable, &objects));
        }
        post_from_uloop([this, objects = std::move(objects), found, pos, holder, ec]() mutable {
            *found = std::move(objects);
            finish_pending(lookup_handlers, pos, holder, ec);
        });
    });
    return lnk;
}

void client_impl::lookup_callable(ubus_context*, ubus_object_data* obj, void* priv) try {
    auto& objects = *static_cast<std::list<object_info>*>(priv);
    object_info info;
    info.path = obj->path;
    info.id = obj->id;
    if (obj->signature) {
        blob_attr* method;
        size_t rem;
        blob_for_each_attr(method, obj->signature, rem) {
            auto& policy = info.methods[blobmsg_name(method)];
            blob_attr* arg;
            size_t arg_rem;
            blobmsg_for_each_attr(arg, method, arg_rem) {
                if (blobmsg_type(arg) == BLOBMSG_TYPE_INT32) {
                    policy.emplace(blobmsg_name(arg), kind_of(blobmsg_get_u32(arg)));
                }
            }
        }
    }
    objects.push_back(std::move(info));
} catch (...) {
    uloop::get_instance().exception_handler();
}

utils::link client_impl::wait_for(const std::list<std::string>& paths, const error_handler& handler,
                                  const std::chrono::seconds& timeout) {
    if (!token) {
        return schedule_result(handler, error::make_error_code(error::generic::aborted));
    }
    const auto ctx = std::make_shared<wait_ctx>();
    ctx->missing.insert(paths.begin(), paths.end());
    ctx->handler = handler;
    waits.emplace(ctx.get(), ctx);
    wait_ctx* key = ctx.get();
    auto lnk = misc::create_link(ctx, [this, key] { end_wait(key); });
    if (current_state != state::connected || ctx->missing.empty()) {
        const std::error_code ec = current_state != state::connected
                                       ? error::make_error_code(error::msg::connection_failed)
                                       : std::error_code();
        schedule_task([this, key, ec] { finish_wait(key, ec); });
        return lnk;
    }
    const auto appeared = [this, key](const std::string& path) {
        const auto it = waits.find(key);
        if (it != waits.end() && it->second->missing.erase(path) != 0 &&
            it->second->missing.empty()) {
            finish_wait(key, std::error_code());
        }
    };
    // Listening first: an object published between a lookup and the listener's
    // registration would otherwise go unseen.
    ctx->listening =
        listen("ubus.object.add", [appeared](const std::string&, const blob::table& data) {
            const auto path = data.find("path");
            if (path != data.end() && path->second.type() == typeid(std::string)) {
                appeared(path->second.get<std::string>());
            }
        });
    for (const auto& path : ctx->missing) {
        ctx->lookups.push_back(lookup(
            path, [appeared, path](const std::list<object_info>&, const std::error_code& ec) {
                if (!ec) {
                    appeared(path);
                }
            }));
    }
    ctx->watching = notify_on_state_change([this, key](state s) {
        if (s != state::connected) {
            finish_wait(key, error::make_error_code(error::msg::connection_failed));
        }
    });
    if (timeout.count() != 0) {
        ctx->timer = get_eloop()->make_timer();
        ctx->timer->wait(
            [this, key] { finish_wait(key, error::make_error_code(error::msg::timeout)); });
        ctx->timer->expires_after(timeout);
    }
    return lnk;
}

void client_impl::finish_wait(wait_ctx* key, const std::error_code& ec) {
    const auto it = waits.find(key);
    if (it == waits.end()) {
        return;
    }
    const auto handler = std::move(it->second->handler);
    end_wait(key);
    if (handler) {
        handler(ec);
    }
}

void client_impl::end_wait(wait_ctx* key) {
    const auto it = waits.find(key);
    if (it == waits.end()) {
        return;
    }
    const auto ctx = std::move(it->second);
    waits.erase(it);
    ctx->listening.release();
    ctx->watching.release();
    for (auto& lookup_link : ctx->lookups) {
        lookup_link.release();
    }
}

} // namespace orvix
