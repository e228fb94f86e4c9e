// Exchanges captured between the real daemon and real clients, and a fixture around them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "wire_peer.h"

// Object "demo" (id 0x8debad38, type 0x15646072) with hello{id: INT32, msg: STRING} and status{}.
inline Bytes demo_signature() {
    return hex("06 00 00 40 | 82 00 00 2c 00 05 68 65 6c 6c 6f 00"
               "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
               "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
               "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00");
}

inline Bytes add_demo() {
    return hex("00 06 00 01 00 00 00 00 | 00 00 00 50 | 02 00 00 09 64 65 6d 6f 00 00 00 00") +
           demo_signature();
}

inline Bytes add_demo_replies() {
    return hex("00 02 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08 8d eb ad 38 |"
               "05 00 00 08 15 64 60 72"
               "00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00");
}

inline Bytes lookup_demo() {
    return hex("00 04 00 01 00 00 00 00 | 00 00 00 10 | 02 00 00 09 64 65 6d 6f 00 00 00 00");
}

inline Bytes lookup_demo_replies() {
    return hex("00 02 00 01 00 00 00 00 | 00 00 00 60 | 02 00 00 09 64 65 6d 6f 00 00 00 00"
               "03 00 00 08 8d eb ad 38 | 05 00 00 08 15 64 60 72") +
           demo_signature() +
           hex("00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00");
}

// The arguments {"id": 1, "msg": "hi"} as a DATA attribute.
inline Bytes hello_args() {
    return hex("07 00 00 24 | 85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
               "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00");
}

inline Bytes invoke_hello_from_caller() {
    return hex("00 05 00 02 8d eb ad 38 | 00 00 00 3c | 03 00 00 08 8d eb ad 38"
               "04 00 00 0a 68 65 6c 6c 6f 00 00 00") +
           hello_args();
}

inline Bytes invoke_hello_to_owner() {
    return hex("00 05 00 02 d3 28 f7 07 | 00 00 00 54 | 03 00 00 08 8d eb ad 38"
               "04 00 00 0a 68 65 6c 6c 6f 00 00 00 | 0c 00 00 09 72 6f 6f 74 00 00 00 00"
               "0d 00 00 09 72 6f 6f 74 00 00 00 00") +
           hello_args();
}

// The owner's reply {"reply": "hi"} and its final status, as the owner writes them.
inline Bytes reply_data_blob() {
    return hex("00 00 00 20 | 03 00 00 08 8d eb ad 38 |"
               "07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00");
}

inline Bytes reply_status_blob() {
    return hex("00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 8d eb ad 38");
}

// The demo object; its methods call Demo::on_call, which each test sets as it needs.
struct Demo {
    using Handler = std::function<int(ubus_context*, ubus_request_data*, const char*, blob_attr*)>;
    static Handler on_call;
    static int dispatch(ubus_context* ctx, ubus_object* obj, ubus_request_data* req,
                        const char* method, blob_attr* msg);
    static const blobmsg_policy policy[2];
    static const ubus_method methods[2];

    ubus_object_type type = UBUS_OBJECT_TYPE("demo", methods);
    ubus_object object = {};

    Demo() {
        object.name = "demo";
        object.type = &type;
        object.methods = methods;
        object.n_methods = 2;
    }
};

inline Bytes status_msg(uint16_t seq, uint32_t peer, uint32_t status) {
    return msg(UBUS_MSG_STATUS, seq, peer, attr(UBUS_ATTR_STATUS, be32(status)));
}

// A call of the demo object, as the daemon forwards it from client 0x55.
inline Bytes invoke_demo(uint16_t seq, const std::string& method, const Bytes& extra = {}) {
    return msg(UBUS_MSG_INVOKE, seq, 0x55,
               attr(UBUS_ATTR_OBJID, be32(0x8debad38)) + attr(UBUS_ATTR_METHOD, str(method)) +
                   extra + attr(UBUS_ATTR_DATA, {}));
}

// An asynchronous request whose callbacks write to a log.
struct Call {
    ubus_request req;
    std::string name;
    std::vector<std::string>* log;

    static void on_data(ubus_request* req, int, blob_attr* msg) {
        Call* call = static_cast<Call*>(req->priv);
        call->log->push_back(call->name + " data " + hex_of(msg, blob_raw_len(msg)));
    }
    static void on_complete(ubus_request* req, int ret) {
        Call* call = static_cast<Call*>(req->priv);
        call->log->push_back(call->name + " complete " + std::to_string(ret));
    }
};

// A connected client with nothing registered with uloop.
class UbusTest : public ::testing::Test {
protected:
    void SetUp() override {
        ctx = daemon.connect();
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override {
        Demo::on_call = nullptr;
        if (ctx)
            uloop_fd_delete(&ctx->sock);
        ubus_free(ctx);
    }
    // Publishes the demo object as in the capture (seq 1).
    void add_demo_object() {
        daemon.send(add_demo_replies());
        ASSERT_EQ(ubus_add_object(ctx, &demo.object), 0);
        ASSERT_EQ(hex_of(daemon.receive_msg()), hex_of(add_demo()));
    }

    // Invokes method "m" of `obj` asynchronously and lets replies through.
    void start(Call& call, const std::string& name, uint32_t obj) {
        call.name = name;
        call.log = &log;
        ASSERT_EQ(ubus_invoke_async(ctx, obj, "m", nullptr, &call.req), 0);
        call.req.data_cb = Call::on_data;
        call.req.complete_cb = Call::on_complete;
        call.req.priv = &call;
        ubus_complete_request_async(ctx, &call.req);
    }

    WirePeer daemon;
    ubus_context* ctx = nullptr;
    Demo demo;
    std::vector<std::string> log;
};
