// Monitors: who may become one, what they are told and in which order, byte for byte.
#include "daemon_test.h"

#include <libubus.h>

#include <arpa/inet.h>
#include <sys/stat.h>

#include <map>
#include <memory>

namespace {

// Object 3's add and remove as the device's libubus sends them: DATA repeats the call's
// own OBJID and METHOD.
const char* const add_seq1 = "00 05 00 01 00 00 00 03 | 00 00 00 28 | 03 00 00 08 00 00 00 03"
                             "04 00 00 08 61 64 64 00 | 07 00 00 14"
                             "03 00 00 08 00 00 00 03 04 00 00 08 61 64 64 00";
const char* const remove_payload = "03 00 00 08 00 00 00 03 | 04 00 00 0b 72 65 6d 6f 76 65 00 00"
                                   "07 00 00 18 03 00 00 08 00 00 00 03"
                                   "04 00 00 0b 72 65 6d 6f 76 65 00 00";

enum { M, P }; // the monitor; a plain client

// Reports carry CLIENT, PEER, SEQ, TYPE, SEND (one byte), then the observed attributes.
const std::vector<script_line> script = {
    // The monitor hears of its own STATUS before it arrives.
    {M, '>', add_seq1},
    {M, '<',
     "00 0b 00 01 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {mon} | 01 00 00 08 00 00 00 03"
     "03 00 00 08 00 00 00 01 | 04 00 00 08 00 00 00 01 | 02 00 00 05 01 00 00 00"
     "05 00 00 0c 01 00 00 08 00 00 00 00"},
    {M, '<', "00 01 00 01 00 00 00 03 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    // A ping and the two replies, as recorded from the device's daemon.
    {P, '>', "00 03 00 09 00 00 00 77 | 00 00 00 0c | 02 00 00 06 70 00 00 00"},
    {M, '<',
     "00 0b 00 02 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {cli} | 01 00 00 08 00 00 00 77"
     "03 00 00 08 00 00 00 09 | 04 00 00 08 00 00 00 03 | 02 00 00 05 00 00 00 00"
     "05 00 00 0c 02 00 00 06 70 00 00 00"},
    {M, '<',
     "00 0b 00 03 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {cli} | 01 00 00 08 00 00 00 77"
     "03 00 00 08 00 00 00 09 | 04 00 00 08 00 00 00 02 | 02 00 00 05 01 00 00 00"
     "05 00 00 0c 02 00 00 06 70 00 00 00"},
    {M, '<',
     "00 0b 00 04 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {cli} | 01 00 00 08 00 00 00 77"
     "03 00 00 08 00 00 00 09 | 04 00 00 08 00 00 00 01 | 02 00 00 05 01 00 00 00"
     "05 00 00 0c 01 00 00 08 00 00 00 00"},
    {P, '<', "00 02 00 09 00 00 00 77 | 00 00 00 0c | 02 00 00 06 70 00 00 00"},
    {P, '<', "00 01 00 09 00 00 00 77 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    // Unknown types are reported too, before they are refused.
    {P, '>', "00 14 00 0a 00 00 00 55 | 00 00 00 0c | 02 00 00 07 7a 7a 00 00"},
    {M, '<',
     "00 0b 00 05 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {cli} | 01 00 00 08 00 00 00 55"
     "03 00 00 08 00 00 00 0a | 04 00 00 08 00 00 00 14 | 02 00 00 05 00 00 00 00"
     "05 00 00 0c 02 00 00 07 7a 7a 00 00"},
    {M, '<',
     "00 0b 00 06 00 00 00 00 | 00 00 00 38 | 00 00 00 08 {cli} | 01 00 00 08 00 00 00 55"
     "03 00 00 08 00 00 00 0a | 04 00 00 08 00 00 00 01 | 02 00 00 05 01 00 00 00"
     "05 00 00 0c 01 00 00 08 00 00 00 01"},
    {P, '<', "00 01 00 0a 00 00 00 55 | 00 00 00 0c | 01 00 00 08 00 00 00 01"},
    // The monitor sees its own remove, but not the STATUS answering it.
    {M, '>', "00 05 00 02 00 00 00 03 | 00 00 00 30 | {remove}"},
    {M, '<',
     "00 0b 00 07 00 00 00 00 | 00 00 00 5c | 00 00 00 08 {mon} | 01 00 00 08 00 00 00 03"
     "03 00 00 08 00 00 00 02 | 04 00 00 08 00 00 00 05 | 02 00 00 05 00 00 00 00"
     "05 00 00 30 {remove}"},
    {M, '<', "00 01 00 02 00 00 00 03 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {P, '>', "00 03 00 0b 00 00 00 00 | 00 00 00 04"},
    {P, '<', "00 02 00 0b 00 00 00 00 | 00 00 00 04"},
    {P, '<', "00 01 00 0b 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
};

// Monitoring is for root with group root only.
class Monitor : public DaemonTest {
protected:
    void SetUp() override {
        if (geteuid() != 0 || getegid() != 0)
            GTEST_SKIP() << "needs uid 0 and gid 0 to monitor";
        DaemonTest::SetUp();
    }

    // Each message as "<- A invoke" (a report of what A sent), "-> A status" (of what A was
    // sent) or, for anything but a report, "status" and so on. Names are given by client id.
    static std::vector<std::string> next(bus_client& c, size_t n,
                                         const std::map<uint32_t, std::string>& names) {
        static const char* const types[] = {
            "hello",      "status",        "data",      "ping",        "lookup", "invoke",
            "add_object", "remove_object", "subscribe", "unsubscribe", "notify", "monitor"};
        std::vector<std::string> out;
        for (size_t i = 0; i < n; i++) {
            std::optional<frame> f = c.recv();
            if (!f) {
                out.push_back("(nothing)");
                break;
            }
            unsigned type = f->type == UBUS_MSG_MONITOR ? f->u32(UBUS_MONITOR_TYPE) : f->type;
            std::string text = type < std::size(types) ? types[type] : std::to_string(type);
            if (f->type == UBUS_MSG_MONITOR) {
                auto who = names.find(f->u32(UBUS_MONITOR_CLIENT));
                text = std::string(f->payload(UBUS_MONITOR_SEND) == bytes{1} ? "-> " : "<- ") +
                       (who == names.end() ? "?" : who->second) + " " + text;
            }
            out.push_back(text);
        }
        return out;
    }
    using Log = std::vector<std::string>;
};

TEST_F(Monitor, ReportsMatchTheRecordedBytes) {
    bus_client mon(socket()), cli(socket());
    hex_vars vars = {
        {"mon", be32(mon.id)}, {"cli", be32(cli.id)}, {"remove", from_hex(remove_payload)}};
    EXPECT_EQ(play_script(script, {&mon, &cli}, vars), "");
    EXPECT_FALSE(mon.recv(100)) << "nothing after remove";
}

TEST_F(Monitor, RegistrationReAddAndDeparture) {
    bus_client a(socket()), b(socket()), p(socket());
    std::map<uint32_t, std::string> names = {{a.id, "A"}, {b.id, "B"}, {p.id, "P"}};
    auto monitor = [](bus_client& c, const char* method) {
        c.send(invoke(c.next_seq++, 3, 3, method, attr(UBUS_ATTR_DATA, {})));
    };

    monitor(a, "add");
    EXPECT_EQ(next(a, 2, names), (Log{"-> A status", "status"}));
    monitor(b, "add");
    EXPECT_EQ(next(a, 2, names), (Log{"<- B invoke", "-> B status"}));
    EXPECT_EQ(next(b, 2, names), (Log{"-> B status", "status"}));
    // Adding again keeps one registration.
    monitor(a, "add");
    EXPECT_EQ(next(a, 3, names), (Log{"<- A invoke", "-> A status", "status"}));
    EXPECT_EQ(next(b, 2, names), (Log{"<- A invoke", "-> A status"}));
    ASSERT_EQ(p.ping(), 0);
    for (bus_client* m : {&a, &b})
        EXPECT_EQ(next(*m, 3, names), (Log{"<- P ping", "-> P data", "-> P status"}));

    // The daemon's HELLO is a message it sends like any other.
    bus_client n(socket());
    names[n.id] = "N";
    for (bus_client* m : {&a, &b})
        EXPECT_EQ(next(*m, 1, names), Log{"-> N hello"});

    // A departed monitor leaves the list before it is freed; a newcomer is no monitor.
    ASSERT_NE(b.add_object("gone", signature({})), 0u);
    EXPECT_EQ(next(a, 3, names), (Log{"<- B add_object", "-> B data", "-> B status"}));
    b.close();
    ASSERT_TRUE(p.wait_gone("gone"));
    a.drain(); // the reports of those lookups
    bus_client q(socket());
    names[q.id] = "Q";
    EXPECT_EQ(next(a, 1, names), Log{"-> Q hello"});
    ASSERT_EQ(p.ping(), 0);
    EXPECT_EQ(next(a, 3, names), (Log{"<- P ping", "-> P data", "-> P status"}));
    EXPECT_FALSE(q.recv(100));
    monitor(a, "remove");
    EXPECT_EQ(next(a, 2, names), (Log{"<- A invoke", "status"}));
    ASSERT_EQ(p.ping(), 0);
    EXPECT_FALSE(a.recv(100));
}

// What object 3 answers whom: uid 0 alone is not enough, the group must be root's too.
TEST_F(Monitor, OnlyRootWithGroupRoot) {
    const struct passwd* nobody = getpwnam("nobody");
    if (!nobody)
        GTEST_SKIP() << "no account 'nobody'";
    ASSERT_EQ(chmod(daemon_.dir, 0755), 0);
    auto connect_as = [&](uid_t uid, gid_t gid) {
        std::unique_ptr<bus_client> c;
        EXPECT_EQ(setegid(gid), 0);
        EXPECT_EQ(seteuid(uid), 0);
        try {
            c = std::make_unique<bus_client>(socket());
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
        EXPECT_EQ(seteuid(0), 0);
        EXPECT_EQ(setegid(0), 0);
        return c;
    };
    const struct {
        uid_t uid;
        gid_t gid;
        const char* method;
        int status;
    } cases[] = {
        // Each row is a new client: its remove has nothing to undo.
        {0, 0, "remove", 0},
        {0, 0, "add", 0},
        {0, 0, "other", 3},
        {0, 1, "add", 6},
        {0, 1, "remove", 6},
        {0, 1, "other", 6},
        {nobody->pw_uid, 0, "add", 6},
        {nobody->pw_uid, nobody->pw_gid, "other", 6},
    };
    for (const auto& c : cases) {
        std::unique_ptr<bus_client> client = connect_as(c.uid, c.gid);
        ASSERT_TRUE(client);
        EXPECT_EQ(client->request(invoke(1, 3, 3, c.method, attr(UBUS_ATTR_DATA, {}))), c.status)
            << c.uid << ":" << c.gid << " " << c.method;
    }
    bus_client root(socket());
    EXPECT_EQ(root.request(msg(UBUS_MSG_INVOKE, 1, 3, attr_u32(UBUS_ATTR_OBJID, 3))), 2)
        << "no method";
}

// hostbus's libubus as a monitor: its own add STATUS arrives during the call, and the
// daemon reports its remove as sent.
std::vector<std::pair<uint32_t, std::string>> seen;

TEST_F(Monitor, LibubusStartAndStop) {
    ubus_context* ctx = ubus_connect(socket().c_str());
    ASSERT_NE(ctx, nullptr);
    seen.clear();
    ctx->monitor_cb = [](ubus_context*, uint32_t seq, blob_attr* data) {
        seen.emplace_back(seq, to_hex(data, blob_raw_len(data)));
    };
    hex_vars vars = {{"id", be32(ntohl(ctx->local_id))}, {"remove", from_hex(remove_payload)}};
    const std::string header = "00 00 00 08 {id} | 01 00 00 08 00 00 00 03 | 03 00 00 08 00 00 00 ";

    EXPECT_EQ(ubus_monitor_start(ctx), 0);
    EXPECT_EQ(seen, (std::vector<std::pair<uint32_t, std::string>>{
                        {1, to_hex(expand_hex("00 00 00 38 |" + header +
                                                  "01 | 04 00 00 08 00 00 00 01"
                                                  "02 00 00 05 01 00 00 00"
                                                  "05 00 00 0c 01 00 00 08 00 00 00 00",
                                              vars))}}));
    seen.clear();
    EXPECT_EQ(ubus_monitor_stop(ctx), 0);
    EXPECT_EQ(seen, (std::vector<std::pair<uint32_t, std::string>>{
                        {2, to_hex(expand_hex("00 00 00 5c |" + header +
                                                  "02 | 04 00 00 08 00 00 00 05"
                                                  "02 00 00 05 00 00 00 00 | 05 00 00 30 {remove}",
                                              vars))}}));
    ubus_free(ctx);
}

} // namespace
