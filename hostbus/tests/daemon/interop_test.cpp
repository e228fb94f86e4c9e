// hostbus's libubus on both sides of orvix-ubusd: this test as the caller, the test kit's
// service as the owner.
#include "daemon_test.h"

#include <libubus.h>

#include <orvix_testing/blob.h>
#include <orvix_testing/process.h>

#include <optional>

namespace {

// The bus limit on a message blob; not part of the public headers.
constexpr size_t max_message = 1048576;

class Interop : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        service.emplace(std::vector<std::string>{ORVIX_TEST_SERVICE, socket(), "svc"}, true);
        ASSERT_TRUE(service->read_until("ready\n", 30000)) << service->output();
        ctx = ubus_connect(socket().c_str());
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(ubus_lookup_id(ctx, "svc", &id), 0);
        blob_buf_init(&args, 0);
    }
    void TearDown() override {
        if (ctx)
            ubus_free(ctx);
        blob_buf_free(&args);
        service.reset();
        DaemonTest::TearDown();
    }

    // Calls `method` with what `args` holds, then empties it; `replies` gets each DATA.
    int call(const char* method, int timeout_ms = 5000) {
        replies.clear();
        int status = ubus_invoke(
            ctx, id, method, args.head,
            [](ubus_request* req, int, blob_attr* msg) {
                static_cast<std::vector<std::string>*>(req->priv)->push_back(to_hex(msg));
            },
            &replies, timeout_ms);
        blob_buf_init(&args, 0);
        return status;
    }
    static std::string reply(const bytes& fields) { return to_hex(attr(UBUS_ATTR_DATA, fields)); }

    std::optional<process> service;
    ubus_context* ctx = nullptr;
    uint32_t id = 0;
    blob_buf args{};
    std::vector<std::string> replies;
};

// Answered later the other way round, each reply still finds its request.
TEST_F(Interop, DeferredRepliesInTheReverseOrder) {
    static std::vector<int> done;
    done.clear();
    ubus_request reqs[3];
    ubus_add_uloop(ctx);
    for (int i = 0; i < 3; i++) {
        blobmsg_add_u32(&args, "ms", uint32_t(300 - 100 * i));
        ASSERT_EQ(ubus_invoke_async(ctx, id, "later", args.head, &reqs[i]), 0);
        blob_buf_init(&args, 0);
        reqs[i].priv = reinterpret_cast<void*>(intptr_t(i));
        reqs[i].complete_cb = [](ubus_request* req, int status) {
            done.push_back(status ? -1 : int(reinterpret_cast<intptr_t>(req->priv)));
            if (done.size() == 3)
                uloop_end();
        };
        ubus_complete_request_async(ctx, &reqs[i]);
    }
    uloop_timeout guard = {};
    guard.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&guard, 10000);
    uloop_run();
    uloop_timeout_cancel(&guard);
    uloop_fd_delete(&ctx->sock);
    EXPECT_EQ(done, (std::vector<int>{2, 1, 0}));
}

// Up to the limit in both directions; beyond it the call is refused before it leaves.
TEST_F(Interop, MessagesNearTheSizeLimit) {
    std::string text(max_message - 256 - 20, 'a');
    blobmsg_add_string(&args, "b", text.c_str());
    EXPECT_EQ(call("echo"), 0);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].size(), to_hex(attr(UBUS_ATTR_DATA, field_str("b", text))).size());
    blobmsg_add_u32(&args, "size", uint32_t(max_message - 128));
    EXPECT_EQ(call("big"), 0);
    EXPECT_EQ(replies,
              std::vector<std::string>{reply(field_str("s", std::string(max_message - 128, 'b')))});
    text.append(256, 'a');
    blobmsg_add_string(&args, "b", text.c_str());
    blobmsg_add_string(&args, "c", text.c_str());
    EXPECT_EQ(call("echo"), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("none"), 0);
}

} // namespace
