#include "client/client_impl.h"
#include "client/exchange_ctx.h"
#include "client/object_ctx.h"
#include "client/ubus_object_ctx.h"

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>
#include <orvix/error.h>
#include <orvix/uloop.h>

#include <exception>
#include <utility>

namespace orvix {

int client_impl::method_callable(ubus_context*, ubus_object* obj, ubus_request_data* req,
                                 const char* method, blob_attr* msg) {
    try {
        auto& self = get_instance({});
        const auto object = self.registered_objects.find(obj);
        if (object == self.registered_objects.end()) {
            return UBUS_STATUS_NOT_FOUND;
        }
        const auto& table = object->second->table;
        const auto entry = table.find(std::string(method));
        if (entry == table.end()) {
            return UBUS_STATUS_METHOD_NOT_FOUND;
        }
        const auto& policy = entry->second.second;
        std::multimap<std::string, blob::attr> args;
        try {
            args = policy.empty() ? blob::utils::to_table(msg) : blob::utils::to_table(msg, policy);
        } catch (...) {
            return to_ubus_msg_status(error::make_error_code(error::msg::parse_error));
        }
        // Deferred by hand, so that the request lives in shared ownership until the
        // exchange context answers it.
        const auto request = std::make_shared<ubus_request_data>(*req);
        req->deferred = true;
        self.post_from_uloop(
            [&self, obj, name = entry->first, args = std::move(args), request]() mutable {
                self.dispatch(obj, name, std::move(args), request);
            });
        return UBUS_STATUS_OK;
    } catch (...) {
        uloop::get_instance().exception_handler();
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
}

void client_impl::dispatch(ubus_object* obj, const std::string& method,
                           std::multimap<std::string, blob::attr>&& args,
                           const std::shared_ptr<ubus_request_data>& request) {
    // An object whose removal has begun no longer takes calls.
    const auto object = published_objects.find(obj);
    if (object == published_objects.end() || object->second->removing) {
        post_to_uloop([this, weak = std::weak_ptr<void>(connection), request] {
            complete_request_sync(weak, request, UBUS_STATUS_NOT_FOUND);
        });
        return;
    }
    // A copy: the handler may withdraw its own object.
    const auto handler = object->second->methods.at(method).first;
    const auto ctx = std::make_shared<exchange_ctx>(*this, request, std::move(args));
    if (handler) {
        handler(ctx);
    }
}

void client_impl::send_reply_sync(const std::weak_ptr<void>& connection_token,
                                  const std::shared_ptr<ubus_request_data>& request,
                                  const std::multimap<std::string, blob::attr>& data,
                                  const error_handler_list::iterator& pos,
                                  const std::weak_ptr<error_handler>& handler) {
    ubus_context* bus = live_context_sync();
    std::error_code ec = error::make_error_code(error::msg::connection_failed);
    // Data that cannot be encoded is the caller's mistake, reported like an invoke's
    // unencodable arguments; it must not stop the loop thread and with it the client.
    try {
        if (!connection_token.expired() && bus) {
            blob::buf message(data);
            ec = to_msg_error(ubus_send_reply(bus, request.get(), message.native()->head));
        }
    } catch (const std::exception&) {
        ec = error::make_error_code(error::msg::parse_error);
    }
    post_from_uloop([this, pos, handler, ec] { finish_pending(send_handlers, pos, handler, ec); });
}

void client_impl::complete_request_sync(const std::weak_ptr<void>& connection_token,
                                        const std::shared_ptr<ubus_request_data>& request,
                                        int status) {
    ubus_context* bus = live_context_sync();
    if (connection_token.expired() || !bus) {
        return;
    }
    ubus_complete_deferred_request(bus, request.get(), status);
}

} // namespace orvix
