// Requests as a caller: lookups, invocations, reply matching, callbacks and waiting.
#include "fake_daemon.h"

namespace {

void store_data(ubus_request* req, int, blob_attr* msg) {
    static_cast<Log*>(req->priv)->push_back(to_hex(msg));
}

TEST_F(UbusTest, LookupsAndInvokeMatchTheCaptures) {
    const bytes lookup_demo =
        from_hex("00 04 00 01 00 00 00 00 | 00 00 00 10 | 02 00 00 09 64 65 6d 6f 00 00 00 00");
    // An entry without type or signature is not reported.
    daemon.client.send(
        msg(UBUS_MSG_DATA, 1, 0, attr_str(UBUS_ATTR_OBJPATH, "x") + objid(5)) +
        from_hex("00 02 00 01 00 00 00 00 | 00 00 00 60 | 02 00 00 09 64 65 6d 6f 00 00 00 00"
                 "03 00 00 08 8d eb ad 38 | 05 00 00 08 15 64 60 72") +
        demo_signature + status_ok_seq1);
    auto cb = [](ubus_context*, ubus_object_data* obj, void* priv) {
        char text[64];
        std::snprintf(text, sizeof(text), "%s %08x %08x ", obj->path, obj->id, obj->type_id);
        static_cast<Log*>(priv)->push_back(text + to_hex(obj->signature));
    };
    EXPECT_EQ(ubus_lookup(ctx, "demo", cb, &log), 0);
    EXPECT_EQ(log, Log{"demo 8debad38 15646072 " + to_hex(demo_signature)});
    EXPECT_EQ(daemon.next(), to_hex(lookup_demo));

    log.clear();
    daemon.client.send(from_hex("00 02 00 02 8d eb ad 38") + reply_data_blob +
                       from_hex("00 01 00 02 8d eb ad 38") + reply_status_blob);
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "id", 1);
    blobmsg_add_string(&b, "msg", "hi");
    EXPECT_EQ(ubus_invoke(ctx, 0x8debad38, "hello", b.head, store_data, &log, 1000), 0);
    blob_buf_free(&b);
    EXPECT_EQ(daemon.next(),
              to_hex(from_hex("00 05 00 02 8d eb ad 38 | 00 00 00 3c | 03 00 00 08 8d eb ad 38"
                              "04 00 00 0a 68 65 6c 6c 6f 00 00 00") +
                     hello_args));
    EXPECT_EQ(log, Log{"07 00 00 14 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00"});

    uint32_t id = 7;
    daemon.client.send(status_msg(3, 0, UBUS_STATUS_NOT_FOUND) + status_msg(4, 0, 0) +
                       msg(UBUS_MSG_DATA, 5, 0, objid(0x500)) +
                       msg(UBUS_MSG_DATA, 5, 0, objid(0x600)) + status_msg(5, 0, 0));
    EXPECT_EQ(ubus_lookup_id(ctx, "nope", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_lookup_id(ctx, "hidden", &id), 0);
    EXPECT_EQ(id, 7u) << "untouched without DATA";
    EXPECT_EQ(ubus_lookup_id(ctx, nullptr, &id), 0);
    EXPECT_EQ(id, 0x600u) << "the last match wins";
    daemon.next();
    daemon.next();
    EXPECT_EQ(daemon.next(), "00 04 00 05 00 00 00 00 00 00 00 04");
}

TEST_F(UbusTest, SequenceNumbersWrapAndOversizeIsRefused) {
    ctx->request_seq = 0xffff;
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async(ctx, 0x10, "m", nullptr, &req), 0);
    EXPECT_EQ(req.seq, 0);
    EXPECT_TRUE(list_empty(&ctx->requests)) << "listed only by ubus_complete_request_async";
    EXPECT_EQ(daemon.next(), to_hex(msg(UBUS_MSG_INVOKE, 0, 0x10,
                                        objid(0x10) + attr_str(UBUS_ATTR_METHOD, "m") +
                                            attr(UBUS_ATTR_DATA, {}))));

    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put(&b, 1, nullptr, 1048576);
    EXPECT_EQ(ubus_invoke_async(ctx, 0x10, "m", b.head, &req), UBUS_STATUS_INVALID_ARGUMENT);
    ubus_request_data reply = {};
    EXPECT_EQ(ubus_send_reply(ctx, &reply, b.head), UBUS_STATUS_NO_DATA);
    blob_buf_free(&b);
    EXPECT_FALSE(ctx->sock.eof);
    EXPECT_EQ(daemon.client.drain().size(), 0u);
}

TEST_F(UbusTest, RepliesAreMatchedBySeqAndPeerAndCompleteOnce) {
    Call raw, a, b, c;
    start(raw, "r", 0x10);
    raw.req.raw_data_cb = [](ubus_request* req, int type, blob_attr*) {
        static_cast<Call*>(req->priv)->log->push_back("r raw " + std::to_string(type));
    };
    daemon.client.send(data_msg(1, 0x10, from_hex("85 00 00 0c 00 01 61 00 00 00 00 01")) +
                       msg(UBUS_MSG_DATA, 1, 0x10, objid(0x10)) +
                       status_msg(1, 0x10, UBUS_STATUS_UNKNOWN_ERROR) + status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (Log{"r raw 2", "r data 07 00 00 10 85 00 00 0c 00 01 61 00 00 00 00 01",
                        "r raw 2", "r complete 9"}));
    EXPECT_TRUE(list_empty(&ctx->requests));

    log.clear();
    start(a, "a", 0x10);
    list_del_init(&a.req.list); // as right after ubus_invoke_async
    daemon.client.send(status_msg(2, 0x10, 0));
    ubus_handle_event(ctx);
    ubus_complete_request_async(ctx, &a.req);
    daemon.client.send(status_msg(2, 0x11, 0) + status_msg(3, 0x10, 0)); // wrong peer, wrong seq
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty());
    daemon.client.send(status_msg(2, 0x10, 5));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, Log{"a complete 5"});

    // A STATUS without a valid status attribute completes with INVALID_ARGUMENT.
    start(b, "b", 0x10);
    start(c, "c", 0x10);
    daemon.client.send(msg(UBUS_MSG_STATUS, 3, 0x10, attr(UBUS_ATTR_STATUS, {0, 0})) +
                       msg(UBUS_MSG_STATUS, 4, 0x10));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (Log{"a complete 5", "b complete 2", "c complete 2"}));

    log.clear();
    Call d;
    start(d, "d", 0x10);
    ubus_abort_request(ctx, &d.req);
    ubus_abort_request(ctx, &d.req);
    EXPECT_EQ(ubus_invoke(ctx, 0x10, "m", nullptr, store_data, &log, 50), UBUS_STATUS_TIMEOUT);
    EXPECT_TRUE(list_empty(&ctx->requests));
    daemon.client.send(data_msg(5, 0x10) + status_msg(5, 0x10, 0) + data_msg(6, 0x10) +
                       status_msg(6, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_TRUE(log.empty()) << "neither the aborted nor the timed-out request hears of it";
}

TEST_F(UbusTest, SyncWaitServesOtherRepliesAndHoldsCallsUntilItReturns) {
    add_demo_object();
    on_call = [&](ubus_context* c, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(std::string("handler ") + method + " at depth " +
                      std::to_string(c->stack_depth));
        return 0;
    };
    Call a;
    start(a, "a", 0x10);
    daemon.client.send(invoke_demo(9, "status") + data_msg(2, 0x10) + status_msg(2, 0x10, 0) +
                       status_msg(3, 0x20, 0));
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0), 0);
    log.push_back("returned");
    EXPECT_EQ(log,
              (Log{"a data 07 00 00 04", "a complete 0", "handler status at depth 1", "returned"}));
    daemon.next();
    daemon.next();
    EXPECT_EQ(daemon.next(), to_hex(status_msg(9, 0x55, 0, objid(0x8debad38))));
}

TEST_F(UbusTest, HeldCallsRunFromThePendingTimerWhenUloopWatchesTheSocket) {
    add_demo_object();
    on_call = [&](ubus_context*, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(method);
        uloop_end();
        return 0;
    };
    ubus_add_uloop(ctx);
    daemon.client.send(invoke_demo(9, "status") + status_msg(2, 0x20, 0));
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(ctx->pending_timer.pending);
    uloop_timeout guard = {};
    guard.cb = [](uloop_timeout*) { uloop_end(); };
    uloop_timeout_set(&guard, 5000);
    uloop_run();
    EXPECT_TRUE(guard.pending) << "ended by the handler, not the guard";
    uloop_timeout_cancel(&guard);
    EXPECT_EQ(log, Log{"status"});
}

TEST_F(UbusTest, NestedWaitsHoldCallsAndHandHeldDataBackNewestFirst) {
    add_demo_object();
    on_call = [&](ubus_context* c, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(std::string(method) + " start");
        if (std::string(method) == "hello")
            log.push_back("got " +
                          std::to_string(ubus_invoke(c, 0x20, "m", nullptr, nullptr, nullptr, 0)));
        log.push_back(std::string(method) + " end");
        return 0;
    };
    daemon.client.send(invoke_demo(5, "hello") + invoke_demo(6, "status") + status_msg(2, 0x20, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (Log{"hello start", "got 0", "hello end", "status start", "status end"}));

    // Replies reaching a data callback that waits follow it: data newest first, status last.
    log.clear();
    static ubus_context* nested_ctx;
    nested_ctx = ctx;
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async(ctx, 0x10, "m", nullptr, &req), 0);
    req.priv = &log;
    req.data_cb = [](ubus_request* r, int, blob_attr* msg) {
        Log* l = static_cast<Log*>(r->priv);
        l->push_back("data " + to_hex(msg));
        if (l->size() == 1)
            l->push_back("inner " + std::to_string(ubus_invoke(nested_ctx, 0x20, "m", nullptr,
                                                               nullptr, nullptr, 0)));
    };
    req.complete_cb = [](ubus_request* r, int ret) {
        static_cast<Log*>(r->priv)->push_back("complete " + std::to_string(ret));
    };
    ubus_complete_request_async(ctx, &req);
    daemon.client.send(data_msg(3, 0x10) + data_msg(3, 0x10, be32(1)) + data_msg(3, 0x10, be32(2)) +
                       status_msg(3, 0x10, 0) + status_msg(4, 0x20, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (Log{"data 07 00 00 04", "inner 0", "data 07 00 00 08 00 00 00 02",
                        "data 07 00 00 08 00 00 00 01", "complete 0"}));
}

} // namespace
