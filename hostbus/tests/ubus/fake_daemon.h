// The daemon's side of a libubus connection, played with scripted bytes, the captured
// exchanges with the "demo" object, and a fixture around them.
#pragma once

// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

#include <libubus.h>

#include <unistd.h>

#include <orvix_testing/blob.h>
#include <orvix_testing/wire.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace orvix_testing;
using Log = std::vector<std::string>;

inline bytes objid(uint32_t id) {
    return attr_u32(UBUS_ATTR_OBJID, id);
}
inline bytes status_msg(uint16_t seq, uint32_t peer, uint32_t status, const bytes& extra = {}) {
    return msg(UBUS_MSG_STATUS, seq, peer, attr_u32(UBUS_ATTR_STATUS, status) + extra);
}
inline bytes data_msg(uint16_t seq, uint32_t peer, const bytes& data = {}) {
    return msg(UBUS_MSG_DATA, seq, peer, attr(UBUS_ATTR_DATA, data));
}

// Captures. HELLO announcing client 0xd328f707; object "demo" (id 0x8debad38, type 0x15646072)
// with hello{id: INT32, msg: STRING} and status{}.
inline const bytes capture_hello = from_hex("00 00 00 00 d3 28 f7 07 | 00 00 00 04");
inline const bytes demo_signature = from_hex("06 00 00 40 | 82 00 00 2c 00 05 68 65 6c 6c 6f 00"
                                             "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
                                             "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
                                             "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00");
inline const bytes status_ok_seq1 = status_msg(1, 0, 0);
// {"id": 1, "msg": "hi"} as a DATA attribute.
inline const bytes hello_args =
    from_hex("07 00 00 24 | 85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
             "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00");
// The daemon's forward of demo.hello from client 0xd328f707, and the owner's reply
// {"reply": "hi"} and final status as it writes them (blobs only).
inline const bytes invoke_hello_to_owner =
    from_hex("00 05 00 02 d3 28 f7 07 | 00 00 00 54 | 03 00 00 08 8d eb ad 38"
             "04 00 00 0a 68 65 6c 6c 6f 00 00 00 | 0c 00 00 09 72 6f 6f 74 00 00 00 00"
             "0d 00 00 09 72 6f 6f 74 00 00 00 00") +
    hello_args;
inline const bytes reply_data_blob =
    from_hex("00 00 00 20 | 03 00 00 08 8d eb ad 38 |"
             "07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00");
inline const bytes reply_status_blob =
    from_hex("00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 8d eb ad 38");

// A call of the demo object, as the daemon forwards it from client 0x55.
inline bytes invoke_demo(uint16_t seq, const std::string& method, const bytes& extra = {}) {
    return invoke(seq, 0x55, 0x8debad38, method, extra + attr(UBUS_ATTR_DATA, {}));
}

// Runs uloop until it ends by itself or `done` holds (looked at every 10 ms), for at most
// `ms`; false if the time ran out.
inline bool run_uloop(
    int ms, const std::function<bool()>& done = [] { return false; }) {
    static const std::function<bool()>* check;
    static int ticks_left;
    check = &done;
    ticks_left = ms / 10;
    uloop_timeout tick = {};
    tick.cb = [](uloop_timeout* t) {
        if ((*check)() || --ticks_left <= 0)
            uloop_end();
        else
            uloop_timeout_set(t, 10);
    };
    uloop_timeout_set(&tick, 10);
    uloop_run();
    const bool in_time = ticks_left > 0;
    uloop_timeout_cancel(&tick);
    return in_time;
}

class FakeDaemon {
public:
    const char* path() const { return listener_.path().c_str(); }
    // Runs `connect_fn` while the next connection is accepted and sent `greeting`; with
    // `close_after` the daemon's end is closed right after that.
    template <typename F>
    auto accepting(const bytes& greeting, F connect_fn, bool close_after = false) {
        client.close();
        std::thread daemon([&] {
            client = listener_.accept();
            client.send(greeting);
            if (close_after)
                client.close();
        });
        auto result = connect_fn();
        daemon.join();
        return result;
    }
    ubus_context* connect(const bytes& greeting = capture_hello, bool close_after = false) {
        return accepting(
            greeting, [&] { return ubus_connect(path()); }, close_after);
    }
    // The next whole message the client wrote, as hex; a descriptor that came with it goes
    // to `fd`, else is closed.
    std::string next(int* fd = nullptr) {
        std::optional<frame> f = client.recv();
        if (f && fd)
            *fd = f->fd;
        else if (f && f->fd >= 0)
            close(f->fd);
        return f ? to_hex(f->raw) : "(nothing)";
    }

    wire_socket client;

private:
    wire_listener listener_;
};

// The demo object; its methods call on_call, which each test sets as it needs.
inline std::function<int(ubus_context*, ubus_request_data*, const char*, blob_attr*)> on_call;
inline int demo_dispatch(ubus_context* ctx, ubus_object*, ubus_request_data* req,
                         const char* method, blob_attr* msg) {
    return on_call ? on_call(ctx, req, method, msg) : 0;
}
inline const blobmsg_policy demo_policy[2] = {{"id", BLOBMSG_TYPE_INT32},
                                              {"msg", BLOBMSG_TYPE_STRING}};
inline const ubus_method demo_methods[2] = {UBUS_METHOD("hello", demo_dispatch, demo_policy),
                                            UBUS_METHOD_NOARG("status", demo_dispatch)};

// An asynchronous request whose callbacks write to a log.
struct Call {
    ubus_request req;
    std::string name;
    Log* log;
};

// A connected client with nothing registered with uloop.
class UbusTest : public ::testing::Test {
protected:
    void SetUp() override {
        demo.name = "demo";
        demo.type = &demo_type;
        demo.methods = demo_methods;
        demo.n_methods = 2;
        ctx = daemon.connect();
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override {
        on_call = nullptr;
        if (ctx)
            uloop_fd_delete(&ctx->sock);
        ubus_free(ctx);
    }
    // Publishes the demo object as in the capture (seq 1).
    void add_demo_object() {
        daemon.client.send(
            msg(UBUS_MSG_DATA, 1, 0, objid(0x8debad38) + attr_u32(UBUS_ATTR_OBJTYPE, 0x15646072)) +
            status_ok_seq1);
        ASSERT_EQ(ubus_add_object(ctx, &demo), 0);
        ASSERT_EQ(daemon.next(), to_hex(from_hex("00 06 00 01 00 00 00 00 | 00 00 00 50 |"
                                                 "02 00 00 09 64 65 6d 6f 00 00 00 00") +
                                        demo_signature));
        EXPECT_EQ(demo.id, 0x8debad38u);
        EXPECT_EQ(demo_type.id, 0x15646072u);
    }
    // Invokes method "m" of `obj` asynchronously and lets replies through.
    void start(Call& call, const std::string& name, uint32_t obj) {
        call.name = name;
        call.log = &log;
        ASSERT_EQ(ubus_invoke_async(ctx, obj, "m", nullptr, &call.req), 0);
        call.req.data_cb = [](ubus_request* req, int, blob_attr* msg) {
            Call* c = static_cast<Call*>(req->priv);
            c->log->push_back(c->name + " data " + to_hex(msg));
        };
        call.req.complete_cb = [](ubus_request* req, int ret) {
            Call* c = static_cast<Call*>(req->priv);
            c->log->push_back(c->name + " complete " + std::to_string(ret));
        };
        call.req.priv = &call;
        ubus_complete_request_async(ctx, &call.req);
    }

    FakeDaemon daemon;
    ubus_context* ctx = nullptr;
    ubus_object_type demo_type = UBUS_OBJECT_TYPE("demo", demo_methods);
    ubus_object demo = {};
    Log log;
};
