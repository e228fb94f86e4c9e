// The standard headers first: libubox's __constructor macro breaks <cxxabi.h>.
#include <algorithm>
#include <cstdlib>
#include <future>
#include <sys/socket.h>
#include <unistd.h>

#include <orvix/uloop.h>

#include "fake_ubus.h"

namespace fake_ubus {

bus& state() {
    static bus instance;
    return instance;
}

void on_loop(const std::function<void(bus&)>& fn) {
    std::promise<void> done;
    orvix::uloop::get_instance().post([&] {
        fn(state());
        done.set_value();
    });
    done.get_future().wait();
}

namespace {

void forget(ubus_request* request) {
    auto& requests = state().requests;
    requests.erase(std::remove(requests.begin(), requests.end(), request), requests.end());
}

// The socket callback: libubus reads messages here; all the fake ever sees is the end.
void on_socket(uloop_fd* sock, unsigned int) {
    char byte;
    if (read(sock->fd, &byte, 1) > 0) {
        return;
    }
    sock->eof = true;
    auto* ctx = container_of(sock, ubus_context, sock);
    if (ctx->connection_lost) {
        ctx->connection_lost(ctx);
    }
}

} // namespace

void complete(ubus_request* request, int status, blob_attr* data) {
    forget(request);
    if (data && request->data_cb) {
        request->data_cb(request, UBUS_MSG_DATA, data);
    }
    if (request->complete_cb) {
        request->complete_cb(request, status);
    }
}

void lose_connection() {
    on_loop([](bus& b) {
        close(b.peer);
        b.peer = -1;
    });
}

} // namespace fake_ubus

using fake_ubus::state;

ubus_context* ubus_connect(const char*) {
    // As libubus does, whether or not the connection is made.
    uloop_init();
    auto& b = state();
    ++b.connects;
    int fds[2];
    if (b.refuse_connections || socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return nullptr;
    }
    auto* ctx = static_cast<ubus_context*>(std::calloc(1, sizeof(ubus_context)));
    ctx->sock.fd = fds[0];
    ctx->sock.cb = &fake_ubus::on_socket;
    b.context = ctx;
    b.peer = fds[1];
    return ctx;
}

void ubus_free(ubus_context* ctx) {
    auto& b = state();
    close(ctx->sock.fd);
    if (b.context == ctx) {
        if (b.peer >= 0) {
            close(b.peer);
        }
        b.context = nullptr;
        b.peer = -1;
        b.requests.clear();
    }
    std::free(ctx);
}

int ubus_lookup_id(ubus_context*, const char*, uint32_t* id) {
    *id = 1024;
    return state().lookup_status;
}

int ubus_invoke_async_fd(ubus_context*, uint32_t, const char*, blob_attr*, ubus_request* req, int) {
    *req = ubus_request{};
    state().requests.push_back(req);
    return UBUS_STATUS_OK;
}

void ubus_complete_request_async(ubus_context*, ubus_request*) {}

void ubus_abort_request(ubus_context*, ubus_request* req) {
    ++state().aborts;
    fake_ubus::forget(req);
}

int ubus_add_object(ubus_context*, ubus_object* obj) {
    state().added.push_back(obj->name ? obj->name : "");
    return state().add_status;
}

int ubus_remove_object(ubus_context*, ubus_object* obj) {
    state().removed.push_back(obj->name ? obj->name : "");
    return UBUS_STATUS_OK;
}

int ubus_send_reply(ubus_context*, ubus_request_data*, blob_attr*) {
    return UBUS_STATUS_OK;
}

void ubus_complete_deferred_request(ubus_context*, ubus_request_data*, int) {}

int ubus_register_event_handler(ubus_context*, ubus_event_handler* ev, const char* pattern) {
    state().listening.push_back(pattern);
    ev->obj.id = 1025;
    return UBUS_STATUS_OK;
}

int ubus_send_event(ubus_context*, const char*, blob_attr*) {
    return UBUS_STATUS_OK;
}

int ubus_lookup(ubus_context*, const char*, ubus_lookup_handler_t, void*) {
    return UBUS_STATUS_NOT_FOUND;
}
