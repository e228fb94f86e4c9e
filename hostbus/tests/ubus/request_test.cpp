// Requests as a caller: lookups, invocations, reply matching, callbacks and waiting.
#include <chrono>

#include "captures.h"

namespace {

void store_data(ubus_request* req, int, blob_attr* msg) {
    static_cast<std::vector<std::string>*>(req->priv)->push_back(hex_of(msg, blob_raw_len(msg)));
}

TEST_F(UbusTest, LookupAndInvokeMatchTheCaptures) {
    daemon.send(lookup_demo_replies());
    uint32_t id = 0;
    ASSERT_EQ(ubus_lookup_id(ctx, "demo", &id), 0);
    EXPECT_EQ(id, 0x8debad38u);
    EXPECT_EQ(hex_of(daemon.receive_msg()), hex_of(lookup_demo()));

    daemon.send(hex("00 02 00 02 8d eb ad 38") + reply_data_blob() +
                hex("00 01 00 02 8d eb ad 38") + reply_status_blob());
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "id", 1);
    blobmsg_add_string(&b, "msg", "hi");
    EXPECT_EQ(ubus_invoke(ctx, id, "hello", b.head, store_data, &log, 1000), 0);
    blob_buf_free(&b);
    EXPECT_EQ(hex_of(daemon.receive_msg()), hex_of(invoke_hello_from_caller()));
    EXPECT_EQ(log, std::vector<std::string>{
                       "07 00 00 14 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00"});
}

TEST_F(UbusTest, LookupReportsOnlyCompleteEntries) {
    daemon.send(msg(UBUS_MSG_DATA, 1, 0, attr(UBUS_ATTR_OBJPATH, str("x")) + attr(3, be32(5))) +
                lookup_demo_replies());
    auto cb = [](ubus_context*, ubus_object_data* obj, void* priv) {
        char text[64];
        std::snprintf(text, sizeof(text), "%s %08x %08x ", obj->path, obj->id, obj->type_id);
        static_cast<std::vector<std::string>*>(priv)->push_back(
            text + hex_of(obj->signature, blob_raw_len(obj->signature)));
    };
    EXPECT_EQ(ubus_lookup(ctx, "demo", cb, &log), 0);
    EXPECT_EQ(log, std::vector<std::string>{"demo 8debad38 15646072 " + hex_of(demo_signature())});
}

TEST_F(UbusTest, LookupIdStatuses) {
    uint32_t id = 7;
    daemon.send(status_msg(1, 0, UBUS_STATUS_NOT_FOUND) + status_msg(2, 0, 0) +
                msg(UBUS_MSG_DATA, 3, 0, attr(UBUS_ATTR_OBJID, be32(0x500))) +
                msg(UBUS_MSG_DATA, 3, 0, attr(UBUS_ATTR_OBJID, be32(0x600))) + status_msg(3, 0, 0));
    EXPECT_EQ(ubus_lookup_id(ctx, "nope", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_lookup_id(ctx, "hidden", &id), 0);
    EXPECT_EQ(id, 7u) << "untouched without DATA";
    EXPECT_EQ(ubus_lookup_id(ctx, nullptr, &id), 0);
    EXPECT_EQ(id, 0x600u) << "the last match wins";
    daemon.receive_msg();
    daemon.receive_msg();
    EXPECT_EQ(hex_of(daemon.receive_msg()), "00 04 00 03 00 00 00 00 00 00 00 04");
}

TEST_F(UbusTest, SequenceNumbersWrapAndNullArgumentsSendEmptyData) {
    ctx->request_seq = 0xffff;
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async(ctx, 0x10, "m", nullptr, &req), 0);
    EXPECT_EQ(req.seq, 0);
    EXPECT_EQ(req.peer, 0x10u);
    EXPECT_TRUE(list_empty(&ctx->requests)) << "listed only by ubus_complete_request_async";
    EXPECT_EQ(hex_of(daemon.receive_msg()),
              hex_of(msg(UBUS_MSG_INVOKE, 0, 0x10,
                         attr(UBUS_ATTR_OBJID, be32(0x10)) + attr(UBUS_ATTR_METHOD, str("m")) +
                             attr(UBUS_ATTR_DATA, {}))));
}

TEST_F(UbusTest, RefusesMessagesOverTheSizeLimit) {
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put(&b, 1, nullptr, 1048576);
    ubus_request req;
    EXPECT_EQ(ubus_invoke_async(ctx, 0x10, "m", b.head, &req), UBUS_STATUS_INVALID_ARGUMENT);
    ubus_request_data reply = {};
    EXPECT_EQ(ubus_send_reply(ctx, &reply, b.head), UBUS_STATUS_NO_DATA);
    blob_buf_free(&b);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(daemon.drain().size(), 0u);
}

TEST_F(UbusTest, CallbacksRunInOrderAndCompleteOnce) {
    Call a;
    start(a, "a", 0x10);
    a.req.raw_data_cb = [](ubus_request* req, int type, blob_attr*) {
        static_cast<Call*>(req->priv)->log->push_back("a raw " + std::to_string(type));
    };
    daemon.send(msg(UBUS_MSG_DATA, 1, 0x10,
                    attr(UBUS_ATTR_DATA, hex("85 00 00 0c 00 01 61 00 00 00 00 01"))) +
                msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_OBJID, be32(0x10))) +
                status_msg(1, 0x10, UBUS_STATUS_UNKNOWN_ERROR) + status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (std::vector<std::string>{
                       "a raw 2", "a data 07 00 00 10 85 00 00 0c 00 01 61 00 00 00 00 01",
                       "a raw 2", "a complete 9"}));
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusTest, RepliesMatchOnlyListedRequestsWithTheirSeqAndPeer) {
    Call a;
    start(a, "a", 0x10);
    list_del_init(&a.req.list); // as right after ubus_invoke_async
    daemon.send(status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty());

    ubus_complete_request_async(ctx, &a.req);
    daemon.send(status_msg(1, 0x11, 0) + status_msg(2, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty());
    daemon.send(status_msg(1, 0x10, 5));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, std::vector<std::string>{"a complete 5"});
}

TEST_F(UbusTest, StatusWithoutAValidStatusAttributeIsInvalidArgument) {
    Call a, b;
    start(a, "a", 0x10);
    start(b, "b", 0x10);
    daemon.send(msg(UBUS_MSG_STATUS, 1, 0x10, attr(UBUS_ATTR_STATUS, {0, 0})) +
                msg(UBUS_MSG_STATUS, 2, 0x10, {}));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (std::vector<std::string>{"a complete 2", "b complete 2"}));
}

TEST_F(UbusTest, AbortedRequestsGetNoCallbacks) {
    Call a;
    start(a, "a", 0x10);
    ubus_abort_request(ctx, &a.req);
    ubus_abort_request(ctx, &a.req);
    daemon.send(msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, {})) + status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusTest, FlushCompletesEveryRequestWithTimeout) {
    Call a, b;
    start(a, "a", 0x10);
    start(b, "b", 0x20);
    ubus_flush_requests(ctx);
    EXPECT_EQ(log.size(), 2u);
    EXPECT_NE(std::find(log.begin(), log.end(), "a complete 7"), log.end());
    EXPECT_NE(std::find(log.begin(), log.end(), "b complete 7"), log.end());
}

TEST_F(UbusTest, SyncInvokeTimesOutAndIgnoresTheLateReply) {
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ubus_invoke(ctx, 0x10, "m", nullptr, store_data, &log, 50), UBUS_STATUS_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(list_empty(&ctx->requests));
    daemon.send(msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, {})) + status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty());
}

TEST_F(UbusTest, SyncWaitServesOtherRepliesAndHoldsCallsUntilItReturns) {
    add_demo_object();
    Demo::on_call = [&](ubus_context* c, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(std::string("handler ") + method + " at depth " +
                      std::to_string(c->stack_depth));
        return 0;
    };
    Call a;
    start(a, "a", 0x10);
    daemon.send(invoke_demo(9, "status") + msg(UBUS_MSG_DATA, 2, 0x10, attr(UBUS_ATTR_DATA, {})) +
                status_msg(2, 0x10, 0) + status_msg(3, 0x20, 0));
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0), 0);
    log.push_back("returned");
    EXPECT_EQ(log, (std::vector<std::string>{"a data 07 00 00 04", "a complete 0",
                                             "handler status at depth 1", "returned"}));
    daemon.receive_msg();
    daemon.receive_msg();
    EXPECT_EQ(
        hex_of(daemon.receive_msg()),
        hex_of(msg(UBUS_MSG_STATUS, 9, 0x55,
                   attr(UBUS_ATTR_STATUS, be32(0)) + attr(UBUS_ATTR_OBJID, be32(0x8debad38)))));
}

TEST_F(UbusTest, HeldCallsRunFromThePendingTimerWhenUloopWatchesTheSocket) {
    add_demo_object();
    Demo::on_call = [&](ubus_context*, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(method);
        uloop_end();
        return 0;
    };
    ubus_add_uloop(ctx);
    daemon.send(invoke_demo(9, "status") + status_msg(2, 0x20, 0));
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(ctx->pending_timer.pending);

    uloop_timeout guard = {};
    guard.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&guard, 5000);
    uloop_run();
    EXPECT_TRUE(guard.pending) << "ended by the handler, not the guard";
    uloop_timeout_cancel(&guard);
    EXPECT_EQ(log, std::vector<std::string>{"status"});
}

TEST_F(UbusTest, CallsArrivingWhileAHandlerWaitsRunAfterIt) {
    add_demo_object();
    Demo::on_call = [&](ubus_context* c, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(std::string(method) + " start");
        if (std::string(method) == "hello")
            log.push_back("got " +
                          std::to_string(ubus_invoke(c, 0x20, "m", nullptr, nullptr, nullptr, 0)));
        log.push_back(std::string(method) + " end");
        return 0;
    };
    daemon.send(invoke_demo(5, "hello") + invoke_demo(6, "status") + status_msg(2, 0x20, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (std::vector<std::string>{"hello start", "got 0", "hello end", "status start",
                                             "status end"}));
}

TEST_F(UbusTest, RepliesReachingABusyDataCallbackFollowItInOrder) {
    struct Nested {
        ubus_request req;
        ubus_context* ctx;
        std::vector<std::string>* log;
    } a;
    a.ctx = ctx;
    a.log = &log;
    ASSERT_EQ(ubus_invoke_async(ctx, 0x10, "m", nullptr, &a.req), 0);
    a.req.priv = &a;
    a.req.data_cb = [](ubus_request* req, int, blob_attr* msg) {
        Nested* self = static_cast<Nested*>(req->priv);
        self->log->push_back("data " + hex_of(msg, blob_raw_len(msg)));
        if (self->log->size() == 1)
            self->log->push_back(
                "inner " +
                std::to_string(ubus_invoke(self->ctx, 0x20, "m", nullptr, nullptr, nullptr, 0)));
    };
    a.req.complete_cb = [](ubus_request* req, int ret) {
        static_cast<Nested*>(req->priv)->log->push_back("complete " + std::to_string(ret));
    };
    ubus_complete_request_async(ctx, &a.req);
    daemon.send(msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, {})) +
                msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, be32(1))) +
                status_msg(1, 0x10, 0) + status_msg(2, 0x20, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (std::vector<std::string>{"data 07 00 00 04", "inner 0",
                                             "data 07 00 00 08 00 00 00 01", "complete 0"}));
}

} // namespace
