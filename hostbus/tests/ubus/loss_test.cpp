// Losing the connection, and input no daemon should send.
#include "fake_daemon.h"

#include <poll.h>
#include <unistd.h>

#include <random>

namespace {

Log* lost_log;

TEST_F(UbusTest, LossCompletesAsyncRequestsWithTimeoutThenReportsIt) {
    lost_log = &log;
    ctx->connection_lost = [](ubus_context*) { lost_log->push_back("lost"); };
    Call a, b;
    start(a, "a", 0x10);
    daemon.client.send(data_msg(1, 0x10));
    daemon.client.close();
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (Log{"a data 07 00 00 04", "a complete 7", "lost"}));
    EXPECT_TRUE(ctx->sock.eof);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);

    // A synchronous wait ends with CONNECTION_FAILED instead.
    log.clear();
    ubus_free(ctx);
    ctx = daemon.connect();
    ASSERT_NE(ctx, nullptr);
    ctx->connection_lost = [](ubus_context*) { lost_log->push_back("lost"); };
    start(b, "b", 0x10);
    daemon.client.shutdown_write();
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(log, (Log{"b complete 7", "lost"}));
    EXPECT_TRUE(list_empty(&ctx->requests));
}

TEST_F(UbusTest, DefaultConnectionLostEndsTheLoopOnlyWhileTheSocketIsRegistered) {
    uloop_cancelled = false;
    ctx->connection_lost(ctx);
    EXPECT_FALSE(uloop_cancelled) << "not registered";
    ubus_add_uloop(ctx);
    daemon.client.shutdown_write(); // a half-close leaves the socket registered
    EXPECT_TRUE(run_uloop(5000));
    EXPECT_TRUE(ctx->sock.eof);

    // A hang-up makes uloop unregister the socket before reporting it: the loop runs on.
    uloop_fd_delete(&ctx->sock);
    ubus_free(ctx);
    ctx = daemon.connect();
    ASSERT_NE(ctx, nullptr);
    Call a;
    start(a, "a", 0x10);
    ubus_add_uloop(ctx);
    daemon.client.close();
    EXPECT_FALSE(run_uloop(200));
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(log, Log{"a complete 7"});
}

TEST_F(UbusTest, FramingOddities) {
    Call a;
    start(a, "a", 0x10);
    // Headers with a bad version or length are dropped alone.
    for (const char* head :
         {"01 01 00 01 00 00 00 10 | 00 00 00 04", "00 01 00 01 00 00 00 10 | 00 10 00 01",
          "00 01 00 01 00 00 00 10 | 00 00 00 02"}) {
        daemon.client.send(from_hex(head));
        ubus_handle_event(ctx);
        EXPECT_FALSE(ctx->sock.eof) << head;
        EXPECT_TRUE(log.empty()) << head;
    }
    // A message of the largest size, then one arriving byte by byte.
    bytes big(1048576 - 8, 0x5a);
    bytes data = data_msg(1, 0x10, big);
    ASSERT_EQ(data.size(), 8u + 1048576u);
    bytes status = status_msg(1, 0x10, 0);
    std::thread writer([&] {
        daemon.client.send(data);
        for (uint8_t byte : status) {
            daemon.client.send({byte});
            usleep(1000);
        }
    });
    for (int i = 0; i < 500 && log.size() < 2; i++) {
        pollfd pfd = {ctx->sock.fd, POLLIN, 0};
        poll(&pfd, 1, 10);
        ubus_handle_event(ctx);
    }
    writer.join();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_TRUE(log[0] == "a data " + to_hex(attr(UBUS_ATTR_DATA, big))) << "intact";
    EXPECT_EQ(log[1], "a complete 0");
}

// Well-framed messages of every type with random attributes, some lying about their length.
TEST_F(UbusTest, SurvivesRandomMessages) {
    add_demo_object();
    on_call = [](ubus_context*, ubus_request_data*, const char*, blob_attr*) { return 0; };
    Call calls[3];
    for (Call& call : calls)
        start(call, "c", 0x10);
    std::mt19937 rng(1234);
    for (int round = 0; round < 2000; round++) {
        bytes attrs;
        for (unsigned n = rng() % 6; n; n--) {
            uint8_t id = uint8_t(rng() % 16);
            bytes payload(rng() % 12);
            for (uint8_t& byte : payload)
                byte = uint8_t(rng());
            if ((id == UBUS_ATTR_OBJID || id == UBUS_ATTR_STATUS) && rng() % 2)
                payload = be32(id == UBUS_ATTR_OBJID ? 0x8debad38 : rng() % 10);
            if (id == UBUS_ATTR_METHOD && rng() % 2)
                payload = str(rng() % 2 ? "hello" : "status");
            bytes a = attr(id, payload);
            if (rng() % 8 == 0)
                a[3] = uint8_t(rng());
            attrs = attrs + a;
        }
        daemon.client.send(
            msg(uint8_t(rng() % 13), uint16_t(rng() % 5), rng() % 2 ? 0x10 : 0x55, attrs));
        ubus_handle_event(ctx);
        daemon.client.drain();
    }
    EXPECT_FALSE(ctx->sock.eof);
    uint16_t seq = uint16_t(ctx->request_seq + 1);
    daemon.client.send(msg(UBUS_MSG_DATA, seq, 0, objid(0x42)) + status_msg(seq, 0, 0));
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
    EXPECT_EQ(id, 0x42u);
}

} // namespace
