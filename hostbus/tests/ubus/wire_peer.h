// The daemon's side of a libubus connection, played with scripted bytes over a unix socket,
// the captured exchanges with the "demo" object, and a fixture around them.
#pragma once

// Standard headers first: libubox's utils.h defines __constructor, a name libstdc++ uses.
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <libubus.h>

using Bytes = std::vector<uint8_t>;
using Log = std::vector<std::string>;

// Hex pairs from text like "00 05 | 0a"; anything that is not a hex digit separates.
Bytes hex(const std::string& text);
std::string hex_of(const void* data, size_t len);
inline std::string hex_of(const Bytes& b) {
    return hex_of(b.data(), b.size());
}
inline std::string hex_of(const blob_attr* a) {
    return hex_of(a, blob_raw_len(a));
}
Bytes operator+(Bytes a, const Bytes& b);

// Building blocks for messages the test writes itself.
Bytes be32(uint32_t value);
Bytes attr(uint8_t id, const Bytes& payload); // plain blob attribute, padded
Bytes str(const std::string& text);           // with its NUL
inline Bytes objid(uint32_t id) {
    return attr(UBUS_ATTR_OBJID, be32(id));
}
Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attrs);
inline Bytes status_msg(uint16_t seq, uint32_t peer, uint32_t status, const Bytes& extra = {}) {
    return msg(UBUS_MSG_STATUS, seq, peer, attr(UBUS_ATTR_STATUS, be32(status)) + extra);
}
inline Bytes data_msg(uint16_t seq, uint32_t peer, const Bytes& data = {}) {
    return msg(UBUS_MSG_DATA, seq, peer, attr(UBUS_ATTR_DATA, data));
}

// Captures. HELLO announcing client 0xd328f707; object "demo" (id 0x8debad38, type 0x15646072)
// with hello{id: INT32, msg: STRING} and status{}.
const Bytes capture_hello = hex("00 00 00 00 d3 28 f7 07 | 00 00 00 04");
const Bytes demo_signature = hex("06 00 00 40 | 82 00 00 2c 00 05 68 65 6c 6c 6f 00"
                                 "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
                                 "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
                                 "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00");
const Bytes status_ok_seq1 = hex("00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00");
// {"id": 1, "msg": "hi"} as a DATA attribute.
const Bytes hello_args = hex("07 00 00 24 | 85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
                             "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00");
// The daemon's forward of demo.hello from client 0xd328f707, and the owner's reply
// {"reply": "hi"} and final status as it writes them (blobs only).
const Bytes invoke_hello_to_owner =
    hex("00 05 00 02 d3 28 f7 07 | 00 00 00 54 | 03 00 00 08 8d eb ad 38"
        "04 00 00 0a 68 65 6c 6c 6f 00 00 00 | 0c 00 00 09 72 6f 6f 74 00 00 00 00"
        "0d 00 00 09 72 6f 6f 74 00 00 00 00") +
    hello_args;
const Bytes reply_data_blob = hex("00 00 00 20 | 03 00 00 08 8d eb ad 38 |"
                                  "07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00");
const Bytes reply_status_blob =
    hex("00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 8d eb ad 38");

// A call of the demo object, as the daemon forwards it from client 0x55.
inline Bytes invoke_demo(uint16_t seq, const std::string& method, const Bytes& extra = {}) {
    return msg(UBUS_MSG_INVOKE, seq, 0x55,
               objid(0x8debad38) + attr(UBUS_ATTR_METHOD, str(method)) + extra +
                   attr(UBUS_ATTR_DATA, {}));
}

class WirePeer {
public:
    WirePeer();
    ~WirePeer();

    const char* path() const { return path_.c_str(); }
    // Runs `connect_fn` while the next connection is accepted and sent `greeting`; with
    // `close_after` the daemon's end is closed right after that.
    template <typename F>
    auto accepting(const Bytes& greeting, F connect_fn, bool close_after = false) {
        close_client();
        std::thread daemon([&] {
            accept_client(greeting);
            if (close_after)
                close_client();
        });
        auto result = connect_fn();
        daemon.join();
        return result;
    }
    ubus_context* connect(const Bytes& greeting = capture_hello, bool close_after = false) {
        return accepting(
            greeting, [&] { return ubus_connect(path()); }, close_after);
    }

    void send(const Bytes& bytes, int pass_fd = -1);
    // One whole message (header, blob header, body); waits up to a few seconds.
    Bytes receive_msg(int* fd = nullptr);
    // Whatever the client has written so far, without waiting.
    Bytes drain();
    void shutdown_write();
    void close_client();

private:
    Bytes receive(size_t n, int* fd);
    void accept_client(const Bytes& greeting);

    std::string dir_, path_;
    int listen_fd_ = -1, client_ = -1;
};

// The demo object; its methods call UbusTest::on_call, which each test sets as it needs.
extern std::function<int(ubus_context*, ubus_request_data*, const char*, blob_attr*)> on_call;
int demo_dispatch(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method,
                  blob_attr* msg);
extern const blobmsg_policy demo_policy[2];
extern const ubus_method demo_methods[2];

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
    void add_demo_object();
    // Invokes method "m" of `obj` asynchronously and lets replies through.
    void start(Call& call, const std::string& name, uint32_t obj);

    WirePeer daemon;
    ubus_context* ctx = nullptr;
    ubus_object_type demo_type = UBUS_OBJECT_TYPE("demo", demo_methods);
    ubus_object demo = {};
    Log log;
};
