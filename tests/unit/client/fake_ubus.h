#pragma once

// A link-time stand-in for the libubus calls the client makes. It keeps one context at a
// time whose socket is one end of a socket pair, so that the client's uloop watches it as
// it would the bus; closing the other end is a lost connection. Everything here is
// touched on the client's loop thread only: tests reach it through on_loop.

#include <libubus.h>

#include <functional>
#include <string>
#include <vector>

namespace fake_ubus {

struct bus {
    bool refuse_connections = false;
    int lookup_status = UBUS_STATUS_OK;
    int add_status = UBUS_STATUS_OK;
    int connects = 0;
    /// Requests started and neither completed nor aborted, in starting order.
    std::vector<ubus_request*> requests;
    int aborts = 0;
    /// Names given to ubus_add_object and ubus_remove_object, in order.
    std::vector<std::string> added;
    std::vector<std::string> removed;
    /// Patterns given to ubus_register_event_handler, in order.
    std::vector<std::string> listening;
    ubus_context* context = nullptr;
    int peer = -1;
};

/// The state; only on the loop thread.
bus& state();

/// Runs `fn` on the client's loop thread and waits for it.
void on_loop(const std::function<void(bus&)>& fn);

/// Completes the request as libubus would: the data message, if any, then the status.
void complete(ubus_request* request, int status, blob_attr* data = nullptr);

/// Ends the connection from the bus's side; the client notices as on a real socket.
void lose_connection();

} // namespace fake_ubus
