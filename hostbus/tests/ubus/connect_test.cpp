// Connecting: HELLO handling, rejected greetings, reconnecting, status texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "wire_peer.h"

namespace {

TEST(UbusConnect, KeepsTheHelloPeerFieldInWireByteOrder) {
    WirePeer daemon;
    ubus_context* ctx = daemon.connect(default_hello());
    ASSERT_NE(ctx, nullptr);

    uint32_t raw;
    std::memcpy(&raw, "\xd3\x28\xf7\x07", 4);
    EXPECT_EQ(ctx->local_id, raw);
#if __BYTE_ORDER == __LITTLE_ENDIAN
    EXPECT_EQ(ctx->local_id, 0x07f728d3u);
#endif
    EXPECT_EQ(ctx->sock.fd >= 0, true);
    EXPECT_FALSE(ctx->sock.registered);
    EXPECT_EQ(ctx->request_seq, 0);
    EXPECT_EQ(daemon.drain().size(), 0u) << "the client speaks only when asked to";
    ubus_free(ctx);
}

TEST(UbusConnect, AcceptsAHelloWithAPayload) {
    WirePeer daemon;
    ubus_context* ctx = daemon.connect(hex("00 00 00 00 d3 28 f7 07 | 00 00 00 08 | 01 02 03 04"));
    ASSERT_NE(ctx, nullptr);
    ubus_free(ctx);
}

TEST(UbusConnect, RejectsBadGreetings) {
    const char* greetings[] = {
        "00 02 00 00 d3 28 f7 07 | 00 00 00 04", // DATA instead of HELLO
        "01 00 00 00 d3 28 f7 07 | 00 00 00 04", // version 1
        "00 00 00 00 00 00 00 00 | 00 00 00 04", // client id 0
        "00 00 00 00 01 00 00 00 | 00 00 00 04", // raw id 1 on little-endian hosts
        "00 00 00 00 d3 28 f7 07 | 00 00 00 03", // blob shorter than its header
        "00 00 00 00 d3 28 f7 07 | 00 11 00 04", // beyond the size limit
        "00 00 00 00 d3 28",                     // cut short, then closed
        "",                                      // closed without a word
    };
    for (const char* greeting : greetings) {
        WirePeer daemon;
        Bytes bytes = hex(greeting);
        if (bytes.size() == 12 && bytes[4] == 1 && __BYTE_ORDER != __LITTLE_ENDIAN)
            continue;
        EXPECT_EQ(daemon.connect(bytes, true), nullptr) << greeting;
    }
}

TEST(UbusConnect, FailsWithoutADaemon) {
    EXPECT_EQ(ubus_connect("/nonexistent/ubus.sock"), nullptr);
    ubus_context ctx;
    EXPECT_EQ(ubus_connect_ctx(&ctx, "/nonexistent/ubus.sock"), -1);
}

TEST(UbusConnect, ConnectCtxFillsCallerStorage) {
    WirePeer daemon;
    ubus_context ctx;
    std::memset(&ctx, 0xa5, sizeof(ctx));
    ASSERT_EQ(
        daemon.accepting(default_hello(), [&] { return ubus_connect_ctx(&ctx, daemon.path()); }),
        0);
    EXPECT_EQ(ctx.stack_depth, 0);
    EXPECT_EQ(ctx.request_seq, 0);

    daemon.send(msg(UBUS_MSG_STATUS, 1, 0, attr(1, be32(UBUS_STATUS_NOT_FOUND))));
    uint32_t id = 7;
    EXPECT_EQ(ubus_lookup_id(&ctx, "nothing", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(id, 7u);
    ubus_shutdown(&ctx);
    EXPECT_EQ(ctx.sock.fd, -1);
}

TEST(UbusReconnect, RepublishesObjectsUnderNewIds) {
    static const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}};
    static const ubus_method methods[] = {UBUS_METHOD("get", nullptr, policy)};
    static ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
    ubus_object first = {}, second = {};
    first.name = "a";
    first.type = &type;
    first.methods = methods;
    first.n_methods = 1;
    second = first;
    second.name = "b";

    WirePeer daemon;
    ubus_context* ctx = daemon.connect();
    ASSERT_NE(ctx, nullptr);
    daemon.send(msg(UBUS_MSG_DATA, 1, 0, attr(3, be32(0x1001)) + attr(5, be32(0x77))) +
                msg(UBUS_MSG_STATUS, 1, 0, attr(1, be32(0))) +
                msg(UBUS_MSG_DATA, 2, 0, attr(3, be32(0x1002))) +
                msg(UBUS_MSG_STATUS, 2, 0, attr(1, be32(0))));
    ASSERT_EQ(ubus_add_object(ctx, &first), 0);
    ASSERT_EQ(ubus_add_object(ctx, &second), 0);
    Bytes signature = hex("06 00 00 20 | 82 00 00 1c 00 03 67 65 74 00 00 00 | "
                          "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05");
    EXPECT_EQ(hex_of(daemon.receive_msg()),
              hex_of(msg(UBUS_MSG_ADD_OBJECT, 1, 0, attr(2, str("a")) + signature)));
    EXPECT_EQ(hex_of(daemon.receive_msg()),
              hex_of(msg(UBUS_MSG_ADD_OBJECT, 2, 0, attr(2, str("b")) + attr(5, be32(0x77)))));

    int ret = daemon.reconnect(
        ctx, msg(UBUS_MSG_DATA, 3, 0, attr(3, be32(0x2001)) + attr(5, be32(0x88))) +
                 msg(UBUS_MSG_STATUS, 3, 0, attr(1, be32(0))) +
                 msg(UBUS_MSG_DATA, 4, 0, attr(3, be32(0x2002))) +
                 msg(UBUS_MSG_STATUS, 4, 0, attr(1, be32(0))));
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(first.id, 0x2001u);
    EXPECT_EQ(second.id, 0x2002u);
    EXPECT_EQ(type.id, 0x88u);
    EXPECT_FALSE(ctx->sock.registered);
    // The type id was forgotten, so the signature goes out again; objects in id order.
    EXPECT_EQ(hex_of(daemon.receive_msg()),
              hex_of(msg(UBUS_MSG_ADD_OBJECT, 3, 0, attr(2, str("a")) + signature)));
    EXPECT_EQ(hex_of(daemon.receive_msg()),
              hex_of(msg(UBUS_MSG_ADD_OBJECT, 4, 0, attr(2, str("b")) + attr(5, be32(0x88)))));
    ubus_free(ctx);
    type.id = 0;
}

TEST(UbusReconnect, ReportsWhyItFailed) {
    WirePeer daemon;
    ubus_context* ctx = daemon.connect();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ubus_reconnect(ctx, "/nonexistent/ubus.sock"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ctx->sock.fd, -1);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), UBUS_STATUS_INVALID_ARGUMENT);
    ubus_free(ctx);
}

TEST(UbusStrerror, NamesEveryStatus) {
    const char* texts[] = {"Success",
                           "Invalid command",
                           "Invalid argument",
                           "Method not found",
                           "Not found",
                           "No response",
                           "Permission denied",
                           "Request timed out",
                           "Operation not supported",
                           "Unknown error",
                           "Connection failed",
                           "Out of memory",
                           "Parsing message data failed",
                           "System error"};
    for (int i = 0; i < 14; i++)
        EXPECT_STREQ(ubus_strerror(i), texts[i]);
    EXPECT_STREQ(ubus_strerror(42), "Unknown error: 42");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

} // namespace
