// Byte-exact exchanges with orvix-ubusd, following recorded reference traffic. Ids are
// random per run, so they are taken from the replies and spliced into the expected bytes.
#include "wire.h"

#include <poll.h>
#include <sys/socket.h>

using namespace wire;

namespace {

const Bytes demo_sig = hex("06 00 00 40 | 82 00 00 2c 00 05 68 65 6c 6c 6f 00"
                           "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
                           "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
                           "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00");
const Bytes add_demo = cat(
    {hex("00 06 00 01 00 00 00 00 | 00 00 00 50 | 02 00 00 09 64 65 6d 6f 00 00 00 00"), demo_sig});
const Bytes status_ok_seq1 = hex("00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00");

class Golden : public DaemonTest {
protected:
    static void expect_next(Client& c, const Bytes& expected) {
        std::optional<Msg> m = c.recv();
        ASSERT_TRUE(m) << "waiting for " << to_hex(expected);
        EXPECT_EQ(to_hex(m->raw), to_hex(expected));
    }
    // Publishes "demo" as captured; returns the DATA reply.
    static Msg publish_demo(Client& owner) {
        owner.send(add_demo);
        std::optional<Msg> data = owner.recv(), status = owner.recv();
        EXPECT_TRUE(data && status);
        return data ? *data : Msg{};
    }
};

TEST_F(Golden, HelloIsTwelveBytesInOneWrite) {
    Client c(socket(), false);
    struct pollfd p = {c.fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    // One read returns the whole greeting: clients read it with a single read().
    uint8_t buf[64];
    ASSERT_EQ(recv(c.fd, buf, sizeof(buf), MSG_DONTWAIT), 12);
    EXPECT_EQ(to_hex(Bytes(buf, buf + 4)), "00 00 00 00");
    EXPECT_EQ(to_hex(Bytes(buf + 8, buf + 12)), "00 00 00 04");
    EXPECT_GE((uint32_t(buf[4]) << 24) | (uint32_t(buf[5]) << 16) | (buf[6] << 8) | buf[7], 1024u);
}

TEST_F(Golden, AddObjectAndLookupReplies) {
    Client owner(socket()), cli(socket());
    owner.send(add_demo);
    std::optional<Msg> added = owner.recv();
    ASSERT_TRUE(added);
    uint32_t id = added->u32(A_OBJID), type = added->u32(A_OBJTYPE);
    EXPECT_GE(id, 1024u);
    EXPECT_GE(type, 1024u);
    EXPECT_EQ(to_hex(added->raw),
              to_hex(cat({hex("00 02 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08"), be32(id),
                          hex("05 00 00 08"), be32(type)})));
    expect_next(owner, status_ok_seq1);

    cli.send(hex("00 04 00 01 00 00 00 00 | 00 00 00 10 | 02 00 00 09 64 65 6d 6f 00 00 00 00"));
    expect_next(cli, cat({hex("00 02 00 01 00 00 00 00 | 00 00 00 60 | "
                              "02 00 00 09 64 65 6d 6f 00 00 00 00 | 03 00 00 08"),
                          be32(id), hex("05 00 00 08"), be32(type), demo_sig}));
    expect_next(cli, status_ok_seq1);
}

TEST_F(Golden, InvokeForwardingAndReplyPeerRewrite) {
    Client owner(socket()), caller(socket());
    uint32_t obj = publish_demo(owner).u32(A_OBJID);
    const Bytes method = hex("04 00 00 0a 68 65 6c 6c 6f 00 00 00");
    const Bytes args = hex("07 00 00 24 | 85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
                           "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00");
    caller.send(cat({hex("00 05 00 02"), be32(obj), hex("00 00 00 3c | 03 00 00 08"), be32(obj),
                     method, args}));

    // USER and GROUP name the caller's account ("root" in the capture).
    Bytes user = attr_str(A_USER, user_name()), group = attr_str(A_GROUP, group_name());
    Bytes body = cat({hex("03 00 00 08"), be32(obj), method, user, group, args});
    expect_next(owner,
                cat({hex("00 05 00 02"), be32(caller.id), be32(uint32_t(4 + body.size())), body}));

    const Bytes data_blob =
        cat({hex("00 00 00 20 | 03 00 00 08"), be32(obj),
             hex("07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00")});
    const Bytes status_blob =
        cat({hex("00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08"), be32(obj)});
    owner.send(cat({hex("00 02 00 02"), be32(caller.id), data_blob}));
    owner.send(cat({hex("00 01 00 02"), be32(caller.id), status_blob}));
    expect_next(caller, cat({hex("00 02 00 02"), be32(obj), data_blob}));
    expect_next(caller, cat({hex("00 01 00 02"), be32(obj), status_blob}));
    EXPECT_FALSE(caller.recv(200)) << "the daemon itself adds nothing for the caller";
}

TEST_F(Golden, TypeIsReportedOnlyOnLastRemoval) {
    Client owner(socket()), other(socket());
    Msg added = publish_demo(owner);
    uint32_t id = added.u32(A_OBJID), type = added.u32(A_OBJTYPE), reported = 1;
    // A known type id is shared by any client and not reported back.
    uint32_t second = other.add_object("second", attr_u32(A_OBJTYPE, type), &reported);
    ASSERT_NE(second, 0u);
    EXPECT_EQ(reported, 0u);
    std::vector<Msg> data;
    ASSERT_EQ(other.lookup(std::string("second"), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0].u32(A_OBJTYPE), type);
    data.clear();
    ASSERT_EQ(other.remove(second, &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_FALSE(data[0].has(A_OBJTYPE));

    owner.send(cat({hex("00 07 00 02 00 00 00 00 | 00 00 00 0c | 03 00 00 08"), be32(id)}));
    expect_next(owner, cat({hex("00 02 00 02 00 00 00 00 | 00 00 00 14 | 03 00 00 08"), be32(id),
                            hex("05 00 00 08"), be32(type)}));
    expect_next(owner, hex("00 01 00 02 00 00 00 00 00 00 00 0c 01 00 00 08 00 00 00 00"));
}

TEST_F(Golden, PingAndDaemonStatusEchoTheRequestHeader) {
    Client c(socket());
    c.send(hex("00 03 00 07 00 00 12 34 | 00 00 00 0c | 02 00 00 06 78 00 00 00"));
    expect_next(c, hex("00 02 00 07 00 00 12 34 00 00 00 0c 02 00 00 06 78 00 00 00"));
    expect_next(c, hex("00 01 00 07 00 00 12 34 00 00 00 0c 01 00 00 08 00 00 00 00"));
    c.send(msg(LOOKUP, 9, 0x55, {attr_str(A_OBJPATH, "nothing")}));
    expect_next(c, hex("00 01 00 09 00 00 00 55 00 00 00 0c 01 00 00 08 00 00 00 04"));
}

} // namespace
