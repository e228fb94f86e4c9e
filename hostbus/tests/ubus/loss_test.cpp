// Losing the connection, and input no daemon should send.
#include <poll.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "captures.h"

namespace {

std::vector<std::string>* lost_log;

void log_lost(ubus_context*) {
    lost_log->push_back("lost");
}

TEST_F(UbusTest, LossCompletesAsyncRequestsWithTimeout) {
    lost_log = &log;
    ctx->connection_lost = log_lost;
    Call a;
    start(a, "a", 0x10);
    daemon.send(msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, {})));
    daemon.close_client();
    ubus_handle_event(ctx);
    EXPECT_EQ(log, (std::vector<std::string>{"a data 07 00 00 04", "a complete 7", "lost"}));
    EXPECT_TRUE(ctx->sock.eof);

    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(UbusTest, SyncWaitEndsWithConnectionFailed) {
    lost_log = &log;
    ctx->connection_lost = log_lost;
    Call a;
    start(a, "a", 0x10);
    daemon.shutdown_write();
    EXPECT_EQ(ubus_invoke(ctx, 0x20, "m", nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(log, (std::vector<std::string>{"a complete 7", "lost"}));
    EXPECT_TRUE(list_empty(&ctx->requests));
}

bool guard_fired;

void end_loop(uloop_timeout*) {
    guard_fired = true;
    uloop_end();
}

TEST_F(UbusTest, DefaultConnectionLostEndsTheLoopWhileTheSocketIsRegistered) {
    uloop_cancelled = false;
    ctx->connection_lost(ctx);
    EXPECT_FALSE(uloop_cancelled) << "not registered";

    ubus_add_uloop(ctx);
    daemon.shutdown_write(); // a half-close leaves the socket registered
    guard_fired = false;
    uloop_timeout guard = {};
    guard.cb = end_loop;
    uloop_timeout_set(&guard, 5000);
    uloop_run();
    uloop_timeout_cancel(&guard);
    EXPECT_FALSE(guard_fired);
    EXPECT_TRUE(ctx->sock.eof);
}

TEST_F(UbusTest, HangUpWhileIdleLeavesTheLoopRunning) {
    Call a;
    start(a, "a", 0x10);
    ubus_add_uloop(ctx);
    daemon.close_client(); // uloop unregisters the socket before reporting it
    guard_fired = false;
    uloop_timeout guard = {};
    guard.cb = end_loop;
    uloop_timeout_set(&guard, 200);
    uloop_run();
    EXPECT_TRUE(guard_fired);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(log, std::vector<std::string>{"a complete 7"});
}

TEST_F(UbusTest, DropsHeadersWithABadVersionOrLengthAlone) {
    Call a;
    start(a, "a", 0x10);
    for (const char* head :
         {"01 01 00 01 00 00 00 10 | 00 00 00 04", "00 01 00 01 00 00 00 10 | 00 10 00 01",
          "00 01 00 01 00 00 00 10 | 00 00 00 02"}) {
        daemon.send(hex(head));
        ubus_handle_event(ctx);
        EXPECT_FALSE(ctx->sock.eof) << head;
        EXPECT_TRUE(log.empty()) << head;
    }
    daemon.send(status_msg(1, 0x10, 0));
    ubus_handle_event(ctx);
    EXPECT_EQ(log, std::vector<std::string>{"a complete 0"});
}

TEST_F(UbusTest, ReassemblesLargeAndFragmentedMessages) {
    Call a;
    start(a, "a", 0x10);
    const size_t max_msglen = 1048576; // the largest blob a message may carry
    Bytes big(max_msglen - 8, 0x5a);
    Bytes data = msg(UBUS_MSG_DATA, 1, 0x10, attr(UBUS_ATTR_DATA, big));
    ASSERT_EQ(data.size(), 8 + max_msglen);
    Bytes status = status_msg(1, 0x10, 0);
    std::thread writer([&] {
        daemon.send(data);
        for (uint8_t byte : status) {
            daemon.send({byte});
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
    EXPECT_TRUE(log[0] == "a data " + hex_of(attr(UBUS_ATTR_DATA, big))) << "intact";
    EXPECT_EQ(log[1], "a complete 0");
}

// Well-framed messages of every type with random attributes, some lying about their length.
TEST_F(UbusTest, SurvivesRandomMessages) {
    add_demo_object();
    Demo::on_call = [](ubus_context*, ubus_request_data*, const char*, blob_attr*) { return 0; };
    Call calls[3];
    for (Call& call : calls)
        start(call, "c", 0x10);
    std::mt19937 rng(1234);
    for (int round = 0; round < 2000; round++) {
        Bytes attrs;
        for (unsigned n = rng() % 6; n; n--) {
            uint8_t id = static_cast<uint8_t>(rng() % 16);
            Bytes payload(rng() % 12);
            for (uint8_t& byte : payload)
                byte = static_cast<uint8_t>(rng());
            if ((id == UBUS_ATTR_OBJID || id == UBUS_ATTR_STATUS) && rng() % 2)
                payload = be32(id == UBUS_ATTR_OBJID ? 0x8debad38 : rng() % 10);
            if (id == UBUS_ATTR_METHOD && rng() % 2)
                payload = str(rng() % 2 ? "hello" : "status");
            Bytes a = attr(id, payload);
            if (rng() % 8 == 0)
                a[3] = static_cast<uint8_t>(rng());
            attrs = attrs + a;
        }
        daemon.send(msg(static_cast<uint8_t>(rng() % 13), static_cast<uint16_t>(rng() % 5),
                        rng() % 2 ? 0x10 : 0x55, attrs));
        ubus_handle_event(ctx);
        daemon.drain();
    }
    EXPECT_FALSE(ctx->sock.eof);

    uint16_t seq = static_cast<uint16_t>(ctx->request_seq + 1);
    daemon.send(msg(UBUS_MSG_DATA, seq, 0, attr(UBUS_ATTR_OBJID, be32(0x42))) +
                status_msg(seq, 0, 0));
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
    EXPECT_EQ(id, 0x42u);
}

} // namespace
