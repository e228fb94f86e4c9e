// Byte-exact exchanges with orvix-ubusd, following recorded reference traffic. Ids are
// random per run, so they are taken from the replies and spliced into the expected bytes.
#include "wire.h"

#include <poll.h>
#include <sys/socket.h>

using namespace wire;

namespace {

class Golden : public DaemonTest {};

const Bytes add_demo = hex("00 06 00 01 00 00 00 00"
                           "00 00 00 50"
                           "02 00 00 09 64 65 6d 6f 00 00 00 00"
                           "06 00 00 40"
                           "82 00 00 2c 00 05 68 65 6c 6c 6f 00"
                           "85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 05"
                           "85 00 00 10 00 03 6d 73 67 00 00 00 00 00 00 03"
                           "82 00 00 10 00 06 73 74 61 74 75 73 00 00 00 00");
const Bytes demo_signature_bytes(add_demo.begin() + 24, add_demo.end());
const Bytes status_ok_seq1 = hex("00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00");

TEST_F(Golden, HelloIsTwelveBytesInOneWrite) {
    Client c(socket(), false);
    struct pollfd p = {c.fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    uint8_t buf[64];
    // One read returns the whole greeting: clients read it with a single read().
    ssize_t n = recv(c.fd, buf, sizeof(buf), MSG_DONTWAIT);
    ASSERT_EQ(n, 12);
    Bytes hello(buf, buf + n);
    EXPECT_EQ(to_hex(Bytes(hello.begin(), hello.begin() + 4)), "00 00 00 00");
    EXPECT_EQ(to_hex(Bytes(hello.begin() + 8, hello.end())), "00 00 00 04");
    uint32_t id =
        (uint32_t(buf[4]) << 24) | (uint32_t(buf[5]) << 16) | (uint32_t(buf[6]) << 8) | buf[7];
    EXPECT_GE(id, 1024u);
}

TEST_F(Golden, AddObjectReply) {
    Client owner(socket());
    owner.send(add_demo);
    std::optional<Msg> data = owner.recv();
    ASSERT_TRUE(data);
    uint32_t id = data->u32(A_OBJID), type = data->u32(A_OBJTYPE);
    EXPECT_GE(id, 1024u);
    EXPECT_GE(type, 1024u);
    EXPECT_EQ(to_hex(data->raw),
              to_hex(cat({hex("00 02 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08"), be32(id),
                          hex("05 00 00 08"), be32(type)})));
    std::optional<Msg> status = owner.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), to_hex(status_ok_seq1));
}

TEST_F(Golden, LookupReplyWithSignature) {
    Client owner(socket()), cli(socket());
    uint32_t type = 0;
    owner.send(add_demo);
    std::optional<Msg> added = owner.recv();
    ASSERT_TRUE(added && owner.recv());
    uint32_t id = added->u32(A_OBJID);
    type = added->u32(A_OBJTYPE);

    cli.send(hex("00 04 00 01 00 00 00 00 | 00 00 00 10 | 02 00 00 09 64 65 6d 6f 00 00 00 00"));
    std::optional<Msg> data = cli.recv();
    ASSERT_TRUE(data);
    EXPECT_EQ(to_hex(data->raw),
              to_hex(cat(
                  {hex("00 02 00 01 00 00 00 00 | 00 00 00 60 | 02 00 00 09 64 65 6d 6f 00 00 00 00"
                       "03 00 00 08"),
                   be32(id), hex("05 00 00 08"), be32(type), demo_signature_bytes})));
    std::optional<Msg> status = cli.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), to_hex(status_ok_seq1));
}

TEST_F(Golden, InvokeForwardingAndReplyPeerRewrite) {
    Client owner(socket()), caller(socket());
    owner.send(add_demo);
    std::optional<Msg> added = owner.recv();
    ASSERT_TRUE(added && owner.recv());
    uint32_t obj = added->u32(A_OBJID);

    const Bytes args = hex("85 00 00 10 00 02 69 64 00 00 00 00 00 00 00 01"
                           "83 00 00 0f 00 03 6d 73 67 00 00 00 68 69 00 00");
    caller.send(cat({hex("00 05 00 02"), be32(obj), hex("00 00 00 3c | 03 00 00 08"), be32(obj),
                     hex("04 00 00 0a 68 65 6c 6c 6f 00 00 00 | 07 00 00 24"), args}));

    std::optional<Msg> invoke = owner.recv();
    ASSERT_TRUE(invoke);
    Bytes user = attr_str(A_USER, user_name()), group = attr_str(A_GROUP, group_name());
    Bytes blob_body =
        cat({hex("03 00 00 08"), be32(obj), hex("04 00 00 0a 68 65 6c 6c 6f 00 00 00"), user, group,
             hex("07 00 00 24"), args});
    EXPECT_EQ(to_hex(invoke->raw), to_hex(cat({hex("00 05 00 02"), be32(caller.id),
                                               be32(uint32_t(4 + blob_body.size())), blob_body})));
    if (user_name() == "root") {
        EXPECT_EQ(to_hex(user), "0c 00 00 09 72 6f 6f 74 00 00 00 00");
    }

    const Bytes data_blob =
        cat({hex("00 00 00 20 | 03 00 00 08"), be32(obj),
             hex("07 00 00 14 | 83 00 00 0f 00 05 72 65 70 6c 79 00 68 69 00 00")});
    const Bytes status_blob =
        cat({hex("00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08"), be32(obj)});
    owner.send(cat({hex("00 02 00 02"), be32(caller.id), data_blob}));
    owner.send(cat({hex("00 01 00 02"), be32(caller.id), status_blob}));

    std::optional<Msg> data = caller.recv();
    ASSERT_TRUE(data);
    EXPECT_EQ(to_hex(data->raw), to_hex(cat({hex("00 02 00 02"), be32(obj), data_blob})));
    std::optional<Msg> status = caller.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), to_hex(cat({hex("00 01 00 02"), be32(obj), status_blob})));
    // The daemon itself adds nothing for the caller.
    EXPECT_FALSE(caller.recv(200));
}

TEST_F(Golden, RemoveObjectLastOfItsType) {
    Client owner(socket());
    uint32_t type = 0;
    uint32_t id = owner.add_object("demo", demo_signature(), &type);
    ASSERT_NE(id, 0u);
    owner.send(cat({hex("00 07 00 02 00 00 00 00 | 00 00 00 0c | 03 00 00 08"), be32(id)}));
    std::optional<Msg> data = owner.recv();
    ASSERT_TRUE(data);
    EXPECT_EQ(to_hex(data->raw),
              to_hex(cat({hex("00 02 00 02 00 00 00 00 | 00 00 00 14 | 03 00 00 08"), be32(id),
                          hex("05 00 00 08"), be32(type)})));
    std::optional<Msg> status = owner.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), "00 01 00 02 00 00 00 00 00 00 00 0c 01 00 00 08 00 00 00 00");
}

TEST_F(Golden, SharedTypeIsReportedOnlyOnLastRemoval) {
    Client owner(socket()), other(socket());
    uint32_t type = 0, type2 = 0;
    uint32_t first = owner.add_object("first", demo_signature(), &type);
    ASSERT_NE(type, 0u);
    // A known type id is shared by any client and not reported back.
    uint32_t second = other.add_object("second", attr_u32(A_OBJTYPE, type), &type2);
    ASSERT_NE(second, 0u);
    EXPECT_EQ(type2, 0u);
    std::vector<Msg> found;
    ASSERT_EQ(other.lookup(std::string("second"), &found), 0);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].u32(A_OBJTYPE), type);

    std::vector<Msg> data;
    ASSERT_EQ(owner.request(msg(REMOVE_OBJECT, 5, 0, {attr_u32(A_OBJID, first)}), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_FALSE(data[0].has(A_OBJTYPE));
    data.clear();
    ASSERT_EQ(other.request(msg(REMOVE_OBJECT, 6, 0, {attr_u32(A_OBJID, second)}), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0].u32(A_OBJTYPE), type);
}

TEST_F(Golden, Ping) {
    Client c(socket());
    c.send(hex("00 03 00 07 00 00 12 34 | 00 00 00 0c | 02 00 00 06 78 00 00 00"));
    std::optional<Msg> echo = c.recv();
    ASSERT_TRUE(echo);
    EXPECT_EQ(to_hex(echo->raw), "00 02 00 07 00 00 12 34 00 00 00 0c 02 00 00 06 78 00 00 00");
    std::optional<Msg> status = c.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), "00 01 00 07 00 00 12 34 00 00 00 0c 01 00 00 08 00 00 00 00");
}

TEST_F(Golden, DaemonStatusEchoesRequestPeer) {
    Client c(socket());
    c.send(msg(LOOKUP, 9, 0x55, {attr_str(A_OBJPATH, "nothing")}));
    std::optional<Msg> status = c.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), "00 01 00 09 00 00 00 55 00 00 00 0c 01 00 00 08 00 00 00 04");
}

} // namespace
