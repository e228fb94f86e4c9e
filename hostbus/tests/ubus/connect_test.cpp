// Connecting: HELLO handling, rejected greetings, reconnecting (also automatic), the signals
// taken on the way, status texts.
#include "fake_daemon.h"

#include <orvix_testing/signals.h>
#include <orvix_testing/ubus_status.h>

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

TEST(UbusConnect, Greetings) {
    const struct {
        const char* bytes;
        bool accepted;
    } greetings[] = {
        {"00 00 00 00 d3 28 f7 07 | 00 00 00 04", true},
        {"00 00 00 00 d3 28 f7 07 | 00 00 00 08 | 01 02 03 04", true}, // HELLO with a payload
        {"00 02 00 00 d3 28 f7 07 | 00 00 00 04", false},              // DATA instead of HELLO
        {"01 00 00 00 d3 28 f7 07 | 00 00 00 04", false},              // version 1
        {"00 00 00 00 00 00 00 00 | 00 00 00 04", false},              // client id 0
        {"00 00 00 00 01 00 00 00 | 00 00 00 04", false}, // raw id 1 (on little-endian hosts)
        {"00 00 00 00 d3 28 f7 07 | 00 00 00 03", false}, // blob shorter than its header
        {"00 00 00 00 d3 28 f7 07 | 00 11 00 04", false}, // beyond the size limit
        {"00 00 00 00 d3 28", false},                     // cut short, then closed
        {"", false},                                      // closed without a word
    };
    for (const auto& g : greetings) {
        if (std::strncmp(g.bytes, "00 00 00 00 01", 14) == 0 && __BYTE_ORDER != __LITTLE_ENDIAN)
            continue;
        FakeDaemon daemon;
        ubus_context* ctx = daemon.connect(from_hex(g.bytes), !g.accepted);
        ASSERT_EQ(ctx != nullptr, g.accepted) << g.bytes;
        if (ctx) {
            // The peer field is kept as it came off the wire, unconverted.
            EXPECT_EQ(std::memcmp(&ctx->local_id, "\xd3\x28\xf7\x07", 4), 0);
            EXPECT_FALSE(ctx->sock.registered);
            EXPECT_EQ(daemon.client.drain().size(), 0u) << "the client speaks only when asked";
        }
        ubus_free(ctx);
    }
    EXPECT_EQ(ubus_connect("/nonexistent/ubus.sock"), nullptr);
    ubus_context ctx;
    EXPECT_EQ(ubus_connect_ctx(&ctx, "/nonexistent/ubus.sock"), -1);

    // Caller storage full of garbage comes out usable.
    FakeDaemon daemon;
    std::memset(&ctx, 0xa5, sizeof(ctx));
    ASSERT_EQ(
        daemon.accepting(capture_hello, [&] { return ubus_connect_ctx(&ctx, daemon.path()); }), 0);
    EXPECT_EQ(ctx.stack_depth, 0);
    EXPECT_EQ(ctx.request_seq, 0);
    daemon.client.send(status_msg(1, 0, UBUS_STATUS_NOT_FOUND));
    uint32_t id = 7;
    EXPECT_EQ(ubus_lookup_id(&ctx, "nothing", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(id, 7u);
    ubus_shutdown(&ctx);
    EXPECT_EQ(ctx.sock.fd, -1);
}

TEST(UbusReconnect, RepublishesObjectsUnderNewIdsAndFailsCleanly) {
    static const blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}};
    static const ubus_method methods[] = {UBUS_METHOD("get", nullptr, policy)};
    static ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
    ubus_object first = {}, second;
    first.name = "a";
    first.type = &type;
    first.methods = methods;
    first.n_methods = 1;
    second = first;
    second.name = "b";
    auto replies = [](uint16_t seq, uint32_t a, uint32_t type_id) {
        return msg(UBUS_MSG_DATA, seq, 0, objid(a) + attr_u32(UBUS_ATTR_OBJTYPE, type_id)) +
               status_msg(seq, 0, 0) + msg(UBUS_MSG_DATA, seq + 1, 0, objid(a + 1)) +
               status_msg(seq + 1, 0, 0);
    };
    const bytes sig = from_hex("06 00 00 20 | 82 00 00 1c 00 03 67 65 74 00 00 00 | "
                               "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05");
    auto expect_adds = [&](FakeDaemon& daemon, uint16_t seq, uint32_t type_id) {
        EXPECT_EQ(daemon.next(),
                  to_hex(msg(UBUS_MSG_ADD_OBJECT, seq, 0, attr_str(UBUS_ATTR_OBJPATH, "a") + sig)));
        EXPECT_EQ(daemon.next(), to_hex(msg(UBUS_MSG_ADD_OBJECT, seq + 1, 0,
                                            attr_str(UBUS_ATTR_OBJPATH, "b") +
                                                attr_u32(UBUS_ATTR_OBJTYPE, type_id))));
    };

    FakeDaemon daemon;
    ubus_context* ctx = daemon.connect();
    ASSERT_NE(ctx, nullptr);
    daemon.client.send(replies(1, 0x1001, 0x77));
    ASSERT_EQ(ubus_add_object(ctx, &first), 0);
    ASSERT_EQ(ubus_add_object(ctx, &second), 0);
    expect_adds(daemon, 1, 0x77);

    EXPECT_EQ(daemon.accepting(capture_hello + replies(3, 0x2001, 0x88),
                               [&] { return ubus_reconnect(ctx, daemon.path()); }),
              0);
    EXPECT_EQ(first.id, 0x2001u);
    EXPECT_EQ(second.id, 0x2002u);
    EXPECT_EQ(type.id, 0x88u);
    EXPECT_FALSE(ctx->sock.registered);
    // The type id was forgotten, so the signature goes out again; objects in id order.
    expect_adds(daemon, 3, 0x88);

    // A refused HELLO leaves the number of the descriptor it closed behind.
    EXPECT_EQ(daemon.accepting(
                  from_hex("00 02 00 00 d3 28 f7 07 | 00 00 00 04"),
                  [&] { return ubus_reconnect(ctx, daemon.path()); }, true),
              UBUS_STATUS_UNKNOWN_ERROR);
    errno = 0;
    EXPECT_GE(ctx->sock.fd, 0);
    EXPECT_EQ(fcntl(ctx->sock.fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ubus_reconnect(ctx, "/nonexistent/ubus.sock"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ctx->sock.fd, -1);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), UBUS_STATUS_INVALID_ARGUMENT);
    ubus_free(ctx);
    type.id = 0;
}

const int taken_signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};

// One letter per signal of taken_signals: D while it has its default disposition.
std::string defaults() {
    std::string out;
    for (int signo : taken_signals)
        out += disposition(signo).sa_handler == SIG_DFL ? 'D' : '-';
    return out;
}

void reset_signals() {
    for (int signo : taken_signals)
        signal(signo, SIG_DFL);
}

// The retry timer is armed for a second; how much of it is left depends on how fast this
// machine (or emulator) ran the attempt.
bool retry_armed(uloop_timeout& timer) {
    const int64_t left = uloop_timeout_remaining64(&timer);
    return timer.pending && left > 0 && left <= 1000;
}

class UbusSignals : public ::testing::Test {
    saved_dispositions saved_{SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
};

// Setting up a context runs uloop_init, taking the signals at their defaults, even when the
// connection fails. The first connection is retried noisily and announced; after a loss,
// reconnecting is silent, unannounced, and leaves the signals alone.
TEST_F(UbusSignals, AutoConnect) {
    static Log log;
    FakeDaemon daemon;
    ubus_auto_conn conn = {};
    conn.path = "/nonexistent/ubus.sock";
    conn.cb = [](ubus_context*) { log.push_back("connected " + defaults()); };
    reset_signals();
    testing::internal::CaptureStderr();
    ubus_auto_connect(&conn);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "failed to connect to ubus\n");
    EXPECT_EQ(defaults(), "----") << "taken although the attempt failed";
    EXPECT_TRUE(retry_armed(conn.timer)) << uloop_timeout_remaining64(&conn.timer);

    conn.path = daemon.path();
    reset_signals();
    EXPECT_TRUE(daemon.accepting(capture_hello,
                                 [&] { return run_uloop(5000, [&] { return !log.empty(); }); }));
    EXPECT_EQ(log, Log{"connected ----"});
    EXPECT_TRUE(conn.ctx.sock.registered);

    conn.path = "/nonexistent/ubus.sock";
    testing::internal::CaptureStderr();
    daemon.client.close();
    EXPECT_TRUE(run_uloop(5000, [&] { return conn.ctx.sock.eof; }));
    EXPECT_GE(conn.ctx.sock.fd, 0);
    EXPECT_TRUE(retry_armed(conn.timer)) << uloop_timeout_remaining64(&conn.timer);
    EXPECT_TRUE(run_uloop(5000, [&] { return conn.ctx.sock.fd == -1; })) << "a failed attempt";
    conn.path = daemon.path();
    reset_signals();
    EXPECT_TRUE(daemon.accepting(
        capture_hello, [&] { return run_uloop(5000, [&] { return conn.ctx.sock.registered; }); }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(defaults(), "DDDD");
    EXPECT_EQ(log.size(), 1u);

    uloop_timeout_cancel(&conn.timer);
    uloop_fd_delete(&conn.ctx.sock);
    ubus_shutdown(&conn.ctx);
}

TEST(UbusStrerror, NamesEveryStatus) {
    for (size_t i = 0; i < ubus_status_texts.size(); i++)
        EXPECT_STREQ(ubus_strerror(int(i)), ubus_status_texts[i]);
    EXPECT_STREQ(ubus_strerror(42), "Unknown error: 42");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

} // namespace
