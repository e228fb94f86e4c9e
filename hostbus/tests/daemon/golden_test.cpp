// Byte-exact exchanges with orvix-ubusd, following recorded reference traffic.
#include "daemon_test.h"

#include <poll.h>
#include <sys/socket.h>

namespace {

// The demo object published, looked up, called and removed, another client sharing its
// type, a ping and a failed lookup. Each line: who sends (>) or receives (<) what.
const std::vector<script_line> script = {
    {0, '>', "00 06 00 01 00 00 00 00 | 00 00 00 50 | {demo} {sig}"},
    {0, '<', "00 02 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} 05 00 00 08 {type}"},
    {0, '<', "00 01 00 01 00 00 00 00 {ok}"},
    {1, '>', "00 04 00 01 00 00 00 00 | 00 00 00 10 | {demo}"},
    {1, '<',
     "00 02 00 01 00 00 00 00 | 00 00 00 60 | {demo} 03 00 00 08 {obj} 05 00 00 08 {type} {sig}"},
    {1, '<', "00 01 00 01 00 00 00 00 {ok}"},
    // USER and GROUP name the caller's account ("root" in the capture).
    {1, '>', "00 05 00 02 {obj} 00 00 00 3c | 03 00 00 08 {obj} {hello} {args}"},
    {0, '<', "00 05 00 02 {caller} {invoke_len} | 03 00 00 08 {obj} {hello} {user} {group} {args}"},
    // The reply is passed on with the peer rewritten to the object.
    {0, '>', "00 02 00 02 {caller} | 00 00 00 20 | 03 00 00 08 {obj} | {reply}"},
    {1, '<', "00 02 00 02 {obj} | 00 00 00 20 | 03 00 00 08 {obj} | {reply}"},
    {0, '>', "00 01 00 02 {caller} | 00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 {obj}"},
    {1, '<', "00 01 00 02 {obj} | 00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 {obj}"},
    // A known type is shared by any client and not reported back, nor on removal.
    {2, '>', "00 06 00 01 00 00 00 00 | 00 00 00 18 | {second_path} 05 00 00 08 {type}"},
    {2, '<', "00 02 00 01 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {second}"},
    {2, '<', "00 01 00 01 00 00 00 00 {ok}"},
    {2, '>', "00 07 00 02 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {second}"},
    {2, '<', "00 02 00 02 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {second}"},
    {2, '<', "00 01 00 02 00 00 00 00 {ok}"},
    // The last object of its type reports it.
    {0, '>', "00 07 00 02 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {obj}"},
    {0, '<', "00 02 00 02 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} 05 00 00 08 {type}"},
    {0, '<', "00 01 00 02 00 00 00 00 {ok}"},
    // PING and the daemon's own STATUS echo the request's seq and peer.
    {1, '>', "00 03 00 07 00 00 12 34 | 00 00 00 0c | 02 00 00 06 78 00 00 00"},
    {1, '<', "00 02 00 07 00 00 12 34 | 00 00 00 0c | 02 00 00 06 78 00 00 00"},
    {1, '<', "00 01 00 07 00 00 12 34 {ok}"},
    {1, '>', "00 04 00 09 00 00 00 55 | 00 00 00 10 | 02 00 00 0c 6e 6f 6e 65 00 00 00 00"},
    {1, '<', "00 01 00 09 00 00 00 55 | 00 00 00 0c | 01 00 00 08 00 00 00 04"},
};

class Golden : public DaemonTest {};

TEST_F(Golden, ExchangesMatchTheCaptures) {
    bus_client owner(socket()), caller(socket()), other(socket());
    const bytes user = attr_str(UBUS_ATTR_USER, user_name());
    const bytes group = attr_str(UBUS_ATTR_GROUP, group_name());
    hex_vars vars = {
        {"sig", from_hex("06 00 00 40 | 82 00 00 2c 00 05 68 65 6c 6c 6f 00"
                         "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
                         "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
                         "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00")},
        {"args", from_hex("07 00 00 24 | 85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
                          "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00")},
        {"reply", from_hex("07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00")},
        {"ok", from_hex("00 00 00 0c | 01 00 00 08 00 00 00 00")},
        {"demo", from_hex("02 00 00 09 64 65 6d 6f 00 00 00 00")},
        {"second_path", from_hex("02 00 00 0b 73 65 63 6f 6e 64 00 00")},
        {"hello", from_hex("04 00 00 0a 68 65 6c 6c 6f 00 00 00")},
        {"caller", be32(caller.id)},
        {"user", user},
        {"group", group},
        {"invoke_len", be32(uint32_t(4 + 8 + 12 + user.size() + group.size() + 36))},
    };
    EXPECT_EQ(play_script(script, {&owner, &caller, &other}, vars), "");
    EXPECT_EQ(vars["sig"], demo_signature());
    EXPECT_GE(get_be32(vars["obj"].data()), 1024u);
    EXPECT_GE(get_be32(vars["type"].data()), 1024u);
    for (bus_client* c : {&owner, &caller, &other})
        EXPECT_FALSE(c->recv(100)) << "the daemon itself adds nothing";
}

// Clients read the greeting with a single read().
TEST_F(Golden, HelloIsTwelveBytesInOneWrite) {
    bus_client c(socket(), false);
    pollfd p = {c.fd(), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    uint8_t buf[64];
    ASSERT_EQ(recv(c.fd(), buf, sizeof(buf), MSG_DONTWAIT), 12);
    EXPECT_EQ(to_hex(buf, 4), "00 00 00 00");
    EXPECT_EQ(to_hex(buf + 8, 4), "00 00 00 04");
    EXPECT_GE(get_be32(buf + 4), 1024u);
}

} // namespace
