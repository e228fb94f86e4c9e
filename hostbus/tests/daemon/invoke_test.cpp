// INVOKE routing: error statuses, forwarding, the checks on replies, passed descriptors,
// and peers that vanish in the middle of a call.
#include "wire.h"

#include <fcntl.h>
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

    Bytes invoke(uint16_t seq, std::initializer_list<Bytes> attrs) {
        return msg(INVOKE, seq, obj, attrs);
    }
    Bytes reply(uint8_t type, uint16_t seq, uint32_t to, std::initializer_list<Bytes> attrs) {
        return msg(type, seq, to, attrs);
    }

    std::optional<Client> owner, caller;
    uint32_t obj = 0;
};

TEST_F(Invoke, ErrorStatusesEchoSeqAndPeer) {
    struct Case {
        const char* what;
        Bytes message;
        uint32_t status;
    };
    const Case cases[] = {
        {"no method", msg(INVOKE, 1, 0x42, {attr_u32(A_OBJID, obj)}), 2},
        {"no object", msg(INVOKE, 2, 0x42, {attr_str(A_METHOD, "hello")}), 2},
        {"short object id", msg(INVOKE, 3, 0x42, {attr(A_OBJID, {0, 1}), attr_str(A_METHOD, "m")}),
         2},
        {"method not a string",
         msg(INVOKE, 4, 0x42, {attr_u32(A_OBJID, obj), attr(A_METHOD, {'x'})}), 2},
        {"unknown object",
         msg(INVOKE, 5, 0x42, {attr_u32(A_OBJID, obj ^ 1), attr_str(A_METHOD, "m")}), 4},
        {"reserved id", msg(INVOKE, 6, 0x42, {attr_u32(A_OBJID, 4), attr_str(A_METHOD, "m")}), 4},
        {"reserved id 1023",
         msg(INVOKE, 7, 0x42, {attr_u32(A_OBJID, 1023), attr_str(A_METHOD, "m")}), 4},
        {"id zero", msg(INVOKE, 8, 0x42, {attr_u32(A_OBJID, 0), attr_str(A_METHOD, "m")}), 4},
    };
    for (const Case& c : cases) {
        caller->send(c.message);
        std::optional<Msg> status = caller->recv();
        ASSERT_TRUE(status) << c.what;
        EXPECT_EQ(status->type, STATUS) << c.what;
        EXPECT_EQ(status->seq, uint16_t((c.message[2] << 8) | c.message[3])) << c.what;
        EXPECT_EQ(status->peer, 0x42u) << c.what;
        EXPECT_EQ(status->u32(A_STATUS), c.status) << c.what;
        EXPECT_EQ(status->attr_list.size(), 1u) << c.what;
    }
    EXPECT_FALSE(owner->recv(200));
}

TEST_F(Invoke, LastOccurrenceOfAnAttributeWins) {
    caller->send(invoke(1, {attr_u32(A_OBJID, 12345), attr_str(A_METHOD, "a"),
                            attr_u32(A_OBJID, obj), attr_str(A_METHOD, "b")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->u32(A_OBJID), obj);
    EXPECT_EQ(fwd->str(A_METHOD), "b");
}

TEST_F(Invoke, ForwardCarriesTheDaemonsAccountNamesAndNoAbsentData) {
    // Account names offered by the caller are replaced by the daemon's.
    caller->send(invoke(9, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "status"),
                            attr_str(A_USER, "mallory"), attr_str(A_GROUP, "wheel")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->type, INVOKE);
    EXPECT_EQ(fwd->seq, 9);
    EXPECT_EQ(fwd->peer, caller->id);
    EXPECT_FALSE(fwd->has(A_DATA));
    EXPECT_EQ(fwd->str(A_USER), user_name());
    EXPECT_EQ(fwd->str(A_GROUP), group_name());
}

TEST_F(Invoke, SeveralRepliesAndStatelessForwarding) {
    caller->send(
        invoke(3, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "hello"), nest(A_DATA, {})}));
    ASSERT_TRUE(owner->recv());
    for (int i = 0; i < 3; i++)
        owner->send(reply(DATA, 3, caller->id,
                          {attr_u32(A_OBJID, obj), nest(A_DATA, {field_u32("i", uint32_t(i))})}));
    owner->send(reply(STATUS, 3, caller->id, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}));
    // Nothing is tracked: a second status and an unsolicited reply go through as well.
    owner->send(reply(STATUS, 3, caller->id, {attr_u32(A_STATUS, 9), attr_u32(A_OBJID, obj)}));
    owner->send(reply(STATUS, 77, caller->id, {attr_u32(A_STATUS, 1), attr_u32(A_OBJID, obj)}));
    for (int i = 0; i < 3; i++) {
        std::optional<Msg> d = caller->recv();
        ASSERT_TRUE(d);
        EXPECT_EQ(d->type, DATA);
        EXPECT_EQ(d->peer, obj);
    }
    for (uint32_t expected : {0u, 9u, 1u}) {
        std::optional<Msg> s = caller->recv();
        ASSERT_TRUE(s);
        EXPECT_EQ(s->type, STATUS);
        EXPECT_EQ(s->peer, obj);
        EXPECT_EQ(s->u32(A_STATUS), expected);
    }
}

TEST_F(Invoke, MalformedOrForeignRepliesAreDropped) {
    Client stranger(socket());
    uint32_t strangers_obj = stranger.add_object("stranger", signature({}));
    ASSERT_NE(strangers_obj, 0u);
    const uint32_t to = caller->id;
    // DATA without DATA, STATUS without STATUS, no OBJID, unknown OBJID, unknown caller.
    owner->send(reply(DATA, 1, to, {attr_u32(A_OBJID, obj)}));
    owner->send(reply(STATUS, 1, to, {attr_u32(A_OBJID, obj)}));
    owner->send(reply(STATUS, 1, to, {attr_u32(A_STATUS, 0)}));
    owner->send(reply(STATUS, 1, to, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, 99999)}));
    owner->send(reply(STATUS, 1, to ^ 0x100, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}));
    // Replies in the name of an object someone else owns.
    stranger.send(reply(STATUS, 1, to, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}));
    // Neither DATA nor STATUS is ever answered by the daemon.
    EXPECT_FALSE(caller->recv(300));
    EXPECT_FALSE(owner->recv(50));
    EXPECT_FALSE(stranger.recv(50));
    // The owner's own object works for the stranger's identity only with its own object.
    stranger.send(reply(STATUS, 2, to, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, strangers_obj)}));
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->peer, strangers_obj);
}

TEST_F(Invoke, DescriptorsTravelWithInvokeAndStatus) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    caller->send_with_fd(invoke(4, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "fd")}), p[1]);
    close(p[1]);
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    ASSERT_GE(fwd->fd, 0);
    ASSERT_EQ(write(fwd->fd, "x", 1), 1);
    close(fwd->fd);
    char c = 0;
    EXPECT_EQ(read(p[0], &c, 1), 1);
    EXPECT_EQ(c, 'x');
    close(p[0]);

    int q[2];
    ASSERT_EQ(pipe(q), 0);
    owner->send_with_fd(
        reply(STATUS, 4, caller->id, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}), q[1]);
    close(q[1]);
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    ASSERT_GE(s->fd, 0);
    ASSERT_EQ(write(s->fd, "y", 1), 1);
    close(s->fd);
    EXPECT_EQ(read(q[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    close(q[0]);
}

TEST_F(Invoke, DescriptorsOnOtherMessagesAreClosed) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    caller->send_with_fd(msg(PING, 1, 0, {}), p[1]);
    close(p[1]);
    ASSERT_TRUE(caller->recv());
    ASSERT_TRUE(caller->recv());
    // With every write end closed the read end reports end of file.
    char c;
    EXPECT_EQ(read(p[0], &c, 1), 0);
    close(p[0]);
}

TEST_F(Invoke, OwnerVanishingMidCallLeavesTheCallerWaiting) {
    caller->send(invoke(5, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "hello")}));
    ASSERT_TRUE(owner->recv());
    owner->close_now();
    EXPECT_FALSE(caller->recv(300));
    // The object went with its owner.
    int status = 0;
    for (int i = 0; i < 500 && status != 4; i++) {
        caller->list(std::string("svc"), &status);
        if (status != 4)
            usleep(10000);
    }
    EXPECT_EQ(status, 4);
    EXPECT_EQ(caller->ping(), 0);
}

TEST_F(Invoke, CallerVanishingMidCallDropsTheReplies) {
    caller->send(invoke(6, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "hello")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    caller->close_now();
    usleep(50000);
    owner->send(reply(DATA, 6, fwd->peer, {attr_u32(A_OBJID, obj), nest(A_DATA, {})}));
    owner->send(reply(STATUS, 6, fwd->peer, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)}));
    EXPECT_EQ(owner->ping(), 0);
    Client again(socket());
    EXPECT_EQ(again.list(std::string("svc")).size(), 1u);
}

TEST_F(Invoke, OwnerRepliesAndExitsAtOnce) {
    caller->send(invoke(7, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "hello")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    owner->send(cat(
        {reply(DATA, 7, fwd->peer, {attr_u32(A_OBJID, obj), nest(A_DATA, {field_u32("last", 1)})}),
         reply(STATUS, 7, fwd->peer, {attr_u32(A_STATUS, 0), attr_u32(A_OBJID, obj)})}));
    owner->close_now();
    std::optional<Msg> d = caller->recv();
    ASSERT_TRUE(d);
    EXPECT_EQ(d->type, DATA);
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, STATUS);
}

TEST_F(Invoke, ForwardThatWouldExceedTheLimitIsRefused) {
    // DATA fills the message up to the limit; the names added on the way would not fit.
    size_t room = 1048576 - 4 - 12 - 12 - 4;
    Bytes big = field(0, "", Bytes(room - 8, 0xab));
    Bytes m = invoke(8, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "m"), attr(A_DATA, big)});
    ASSERT_LE(m.size() - 8, 1048576u);
    caller->send(m);
    std::optional<Msg> s = caller->recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, STATUS);
    EXPECT_EQ(s->u32(A_STATUS), 2u);
    EXPECT_FALSE(owner->recv(200));
    EXPECT_EQ(owner->ping(), 0);
}

TEST_F(Invoke, LargeCallWithinTheLimitIsForwarded) {
    Bytes big = field(3, "blob", Bytes(900000, 'z'));
    big[big.size() - 1] = 0;
    caller->send(invoke(9, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "m"), attr(A_DATA, big)}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->payload(A_DATA), big);
}

} // namespace
