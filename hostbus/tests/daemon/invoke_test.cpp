// INVOKE routing: error statuses, forwarding, the checks on replies, passed descriptors,
// and peers that vanish in the middle of a call.
#include "wire.h"

#include <unistd.h>

using namespace wire;

namespace {

class Invoke : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        owner.emplace(socket());
        caller.emplace(socket());
        obj = owner->add_object("svc", demo_signature());
        ASSERT_NE(obj, 0u);
    }
    Bytes reply(uint8_t type, uint16_t seq, uint32_t status = 0, uint32_t from = 0) {
        Bytes first = type == STATUS ? attr_u32(A_STATUS, status) : attr(A_DATA, {});
        return msg(type, seq, caller->id, {first, attr_u32(A_OBJID, from ? from : obj)});
    }

    std::optional<Client> owner, caller;
    uint32_t obj = 0;
};

TEST_F(Invoke, ErrorStatusesEchoSeqAndPeer) {
    const Bytes m = attr_str(A_METHOD, "m");
    const struct {
        const char* what;
        std::vector<Bytes> attrs;
        uint32_t status;
    } cases[] = {
        {"no method", {attr_u32(A_OBJID, obj)}, 2},
        {"no object", {m}, 2},
        {"short object id", {attr(A_OBJID, {0, 1}), m}, 2},
        {"method not a string", {attr_u32(A_OBJID, obj), attr(A_METHOD, {'x'})}, 2},
        {"unknown object", {attr_u32(A_OBJID, obj ^ 1), m}, 4},
        {"reserved id 4", {attr_u32(A_OBJID, 4), m}, 4},
        {"reserved id 1023", {attr_u32(A_OBJID, 1023), m}, 4},
        {"id zero", {attr_u32(A_OBJID, 0), m}, 4},
    };
    uint16_t seq = 1;
    for (const auto& c : cases) {
        caller->send(msg(INVOKE, seq, 0x42, c.attrs));
        std::optional<Msg> status = caller->recv();
        ASSERT_TRUE(status) << c.what;
        EXPECT_EQ(to_hex(status->raw),
                  to_hex(msg(STATUS, seq++, 0x42, {attr_u32(A_STATUS, c.status)})))
            << c.what;
    }
    EXPECT_FALSE(owner->recv(200));
}

TEST_F(Invoke, ForwardTakesTheLastAttributesAndTheDaemonsAccountNames) {
    caller->send(
        msg(INVOKE, 9, obj,
            {attr_u32(A_OBJID, 12345), attr_str(A_METHOD, "a"), attr_u32(A_OBJID, obj),
             attr_str(A_METHOD, "b"), attr_str(A_USER, "mallory"), attr_str(A_GROUP, "wheel")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->type, INVOKE);
    EXPECT_EQ(fwd->seq, 9);
    EXPECT_EQ(fwd->peer, caller->id);
    EXPECT_EQ(fwd->u32(A_OBJID), obj);
    EXPECT_EQ(fwd->str(A_METHOD), "b");
    EXPECT_EQ(fwd->str(A_USER), user_name());
    EXPECT_EQ(fwd->str(A_GROUP), group_name());
    EXPECT_FALSE(fwd->has(A_DATA)) << "no DATA when the caller sent none";
}

TEST_F(Invoke, RepliesAreForwardedStatelesslyAfterTheOwnershipChecks) {
    Client stranger(socket());
    uint32_t strangers_obj = stranger.add_object("stranger", signature({}));
    ASSERT_NE(strangers_obj, 0u);
    // Dropped: DATA without DATA, STATUS without STATUS or OBJID, unknown OBJID, unknown
    // caller, and replies in the name of an object someone else owns.
    owner->send(msg(DATA, 1, caller->id, {attr_u32(A_OBJID, obj)}));
    owner->send(msg(STATUS, 1, caller->id, {attr_u32(A_OBJID, obj)}));
    owner->send(msg(STATUS, 1, caller->id, {attr_u32(A_STATUS, 0)}));
    owner->send(reply(STATUS, 1, 0, 99999));
    owner->send(
        msg(STATUS, 1, caller->id ^ 0x100, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}));
    stranger.send(reply(STATUS, 1));
    EXPECT_FALSE(caller->recv(300));
    EXPECT_FALSE(owner->recv(50)) << "DATA and STATUS are never answered";
    EXPECT_FALSE(stranger.recv(50));

    // Nothing is tracked: several DATA, a second STATUS and an unsolicited one all go through.
    caller->send(invoke(3, obj, "hello", {attr(A_DATA, {})}));
    ASSERT_TRUE(owner->recv());
    owner->send(cat({reply(DATA, 3), reply(DATA, 3), reply(STATUS, 3, 0), reply(STATUS, 3, 9),
                     reply(STATUS, 77, 1)}));
    const struct {
        uint8_t type;
        uint16_t seq;
        uint32_t peer, status;
    } expected[] = {{DATA, 3, obj, 0},
                    {DATA, 3, obj, 0},
                    {STATUS, 3, obj, 0},
                    {STATUS, 3, obj, 9},
                    {STATUS, 77, obj, 1}};
    for (const auto& e : expected) {
        std::optional<Msg> m = caller->recv();
        ASSERT_TRUE(m);
        EXPECT_EQ(m->type, e.type);
        EXPECT_EQ(m->seq, e.seq);
        EXPECT_EQ(m->peer, e.peer);
        EXPECT_EQ(m->u32(A_STATUS), e.status);
    }
    stranger.send(reply(STATUS, 2, 0, strangers_obj));
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->peer, strangers_obj);
}

TEST_F(Invoke, DescriptorsTravelOnlyWithInvokeAndStatus) {
    char c = 0;
    int p[2], q[2], r[2];
    ASSERT_EQ(pipe(p), 0);
    caller->send(invoke(4, obj, "fd"), p[1]);
    close(p[1]);
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    ASSERT_GE(fwd->fd, 0);
    ASSERT_EQ(write(fwd->fd, "x", 1), 1);
    close(fwd->fd);
    EXPECT_EQ(read(p[0], &c, 1), 1);
    close(p[0]);

    ASSERT_EQ(pipe(q), 0);
    owner->send(reply(STATUS, 4), q[1]);
    close(q[1]);
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    ASSERT_GE(s->fd, 0);
    ASSERT_EQ(write(s->fd, "y", 1), 1);
    close(s->fd);
    EXPECT_EQ(read(q[0], &c, 1), 1);
    close(q[0]);

    // On any other message the daemon closes it: the read end then sees end of file.
    ASSERT_EQ(pipe(r), 0);
    caller->send(msg(PING, 1, 0, {}), r[1]);
    close(r[1]);
    ASSERT_TRUE(caller->recv() && caller->recv());
    EXPECT_EQ(read(r[0], &c, 1), 0);
    close(r[0]);
}

TEST_F(Invoke, PeersVanishingMidCall) {
    Client other(socket());
    // The caller goes: the owner's replies are dropped.
    caller->send(invoke(6, obj, "hello"));
    ASSERT_TRUE(owner->recv());
    caller->close_now();
    usleep(50000);
    owner->send(cat({reply(DATA, 6), reply(STATUS, 6)}));
    EXPECT_EQ(owner->ping(), 0);
    EXPECT_EQ(other.list(std::string("svc")).size(), 1u);

    // The owner replies and exits at once: what it wrote is still delivered.
    caller.emplace(socket());
    caller->send(invoke(7, obj, "hello"));
    ASSERT_TRUE(owner->recv());
    owner->send(cat({reply(DATA, 7), reply(STATUS, 7)}));
    owner->close_now();
    std::optional<Msg> d = caller->recv(), s = caller->recv();
    ASSERT_TRUE(d && s);
    EXPECT_EQ(d->type, DATA);
    EXPECT_EQ(s->type, STATUS);
    EXPECT_TRUE(caller->wait_gone("svc")) << "the object went with its owner";

    // The owner goes without replying: the caller hears nothing and carries on.
    owner.emplace(socket());
    obj = owner->add_object("svc", demo_signature());
    caller->send(invoke(8, obj, "hello"));
    ASSERT_TRUE(owner->recv());
    owner->close_now();
    EXPECT_FALSE(caller->recv(300));
    EXPECT_TRUE(caller->wait_gone("svc"));
    EXPECT_EQ(caller->ping(), 0);
    EXPECT_EQ(other.ping(), 0);
}

TEST_F(Invoke, CallsNearTheSizeLimit) {
    Bytes big = field(3, "blob", Bytes(900000, 'z'));
    big.back() = 0;
    caller->send(invoke(9, obj, "m", {attr(A_DATA, big)}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->payload(A_DATA), big);

    // DATA fills the call up to the limit; with the names added the forward would not fit.
    Bytes full = field(0, "", Bytes(1048576 - 4 - 12 - 12 - 4 - 8, 0xab));
    Bytes m = invoke(10, obj, "m", {attr(A_DATA, full)});
    ASSERT_LE(m.size() - 8, 1048576u);
    EXPECT_EQ(caller->request(m), 2);
    EXPECT_FALSE(owner->recv(200));
    EXPECT_EQ(owner->ping(), 0);
}

} // namespace
