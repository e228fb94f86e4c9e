#pragma once

#include "client/client_impl.h"

#include <orvix/blob/attr.h>
#include <orvix/utils/event_loop.h>

#include <list>
#include <memory>
#include <system_error>

namespace orvix {

/// One invoke, from the call until its handler has run, on the caller's event loop.
class client_impl::invoke_ctx {
public:
    /// The first reply that failed to decode.
    std::error_code error{0, std::system_category()};
    /// Each reply's table, in arrival order.
    std::list<blob::attr> replies;
    std::shared_ptr<ubus_request> request;
    invoke_handler handler;
    /// Armed while the invoke may time out.
    std::shared_ptr<utils::timer> timer;
};

} // namespace orvix
