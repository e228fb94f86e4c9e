// Calls: refusals, forwarding, the checks on replies, passed descriptors, an owner that
// goes right after replying, and the size limit.
#include "daemon_test.h"

#include <unistd.h>

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
    // The owner's DATA or STATUS for the caller, in the name of `from` (default: its object).
    bytes reply(unsigned type, uint16_t seq, uint32_t status = 0, uint32_t from = 0) {
        const bytes first =
            type == UBUS_MSG_STATUS ? attr_u32(UBUS_ATTR_STATUS, status) : attr(UBUS_ATTR_DATA, {});
        return msg(type, seq, caller->id, first + attr_u32(UBUS_ATTR_OBJID, from ? from : obj));
    }

    std::optional<bus_client> owner, caller;
    uint32_t obj = 0;
};

TEST_F(Invoke, RefusalsEchoSeqAndPeerAndTheForwardTakesTheLastAttributes) {
    const bytes m = attr_str(UBUS_ATTR_METHOD, "m");
    const struct {
        const char* what;
        bytes attrs;
        uint32_t status;
    } cases[] = {
        {"no method", attr_u32(UBUS_ATTR_OBJID, obj), UBUS_STATUS_INVALID_ARGUMENT},
        {"no object", m, UBUS_STATUS_INVALID_ARGUMENT},
        {"short object id", attr(UBUS_ATTR_OBJID, {0, 1}) + m, UBUS_STATUS_INVALID_ARGUMENT},
        {"method not a string", attr_u32(UBUS_ATTR_OBJID, obj) + attr(UBUS_ATTR_METHOD, {'x'}),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"unknown object", attr_u32(UBUS_ATTR_OBJID, obj ^ 1) + m, UBUS_STATUS_NOT_FOUND},
        {"reserved id 4", attr_u32(UBUS_ATTR_OBJID, 4) + m, UBUS_STATUS_NOT_FOUND},
        {"reserved id 1023", attr_u32(UBUS_ATTR_OBJID, 1023) + m, UBUS_STATUS_NOT_FOUND},
        {"id zero", attr_u32(UBUS_ATTR_OBJID, 0) + m, UBUS_STATUS_NOT_FOUND},
    };
    uint16_t seq = 1;
    for (const auto& c : cases) {
        caller->send(msg(UBUS_MSG_INVOKE, seq, 0x42, c.attrs));
        std::optional<frame> status = caller->recv();
        ASSERT_TRUE(status) << c.what;
        EXPECT_EQ(to_hex(status->raw),
                  to_hex(msg(UBUS_MSG_STATUS, seq++, 0x42, attr_u32(UBUS_ATTR_STATUS, c.status))))
            << c.what;
    }
    EXPECT_FALSE(owner->recv(200));

    // The account names are the daemon's, whatever the caller claims.
    caller->send(invoke(9, obj, 12345, "a",
                        attr_u32(UBUS_ATTR_OBJID, obj) + attr_str(UBUS_ATTR_METHOD, "b") +
                            attr_str(UBUS_ATTR_USER, "mallory") +
                            attr_str(UBUS_ATTR_GROUP, "wheel")));
    std::optional<frame> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->type, UBUS_MSG_INVOKE);
    EXPECT_EQ(fwd->seq, 9);
    EXPECT_EQ(fwd->peer, caller->id);
    EXPECT_EQ(fwd->u32(UBUS_ATTR_OBJID), obj);
    EXPECT_EQ(fwd->str(UBUS_ATTR_METHOD), "b");
    EXPECT_EQ(fwd->str(UBUS_ATTR_USER), user_name());
    EXPECT_EQ(fwd->str(UBUS_ATTR_GROUP), group_name());
    EXPECT_FALSE(fwd->has(UBUS_ATTR_DATA)) << "no DATA when the caller sent none";
}

TEST_F(Invoke, RepliesAreForwardedStatelesslyAfterTheOwnershipChecks) {
    bus_client stranger(socket());
    uint32_t strangers_obj = stranger.add_object("stranger", signature({}));
    ASSERT_NE(strangers_obj, 0u);
    // Dropped: DATA without data, STATUS without status or object, an unknown object or
    // caller, and replies in the name of an object someone else owns.
    owner->send(msg(UBUS_MSG_DATA, 1, caller->id, attr_u32(UBUS_ATTR_OBJID, obj)) +
                msg(UBUS_MSG_STATUS, 1, caller->id, attr_u32(UBUS_ATTR_OBJID, obj)) +
                msg(UBUS_MSG_STATUS, 1, caller->id, attr_u32(UBUS_ATTR_STATUS, 0)) +
                reply(UBUS_MSG_STATUS, 1, 0, 99999) +
                msg(UBUS_MSG_STATUS, 1, caller->id ^ 0x100,
                    attr_u32(UBUS_ATTR_STATUS, 0) + attr_u32(UBUS_ATTR_OBJID, obj)));
    stranger.send(reply(UBUS_MSG_STATUS, 1));
    EXPECT_FALSE(caller->recv(300));
    EXPECT_FALSE(owner->recv(50)) << "DATA and STATUS are never answered";
    EXPECT_FALSE(stranger.recv(50));

    // Nothing is tracked: several DATA, a second STATUS and an unsolicited one all go through.
    caller->send(invoke(3, obj, obj, "hello", attr(UBUS_ATTR_DATA, {})));
    ASSERT_TRUE(owner->recv());
    owner->send(reply(UBUS_MSG_DATA, 3) + reply(UBUS_MSG_DATA, 3) + reply(UBUS_MSG_STATUS, 3, 0) +
                reply(UBUS_MSG_STATUS, 3, 9) + reply(UBUS_MSG_STATUS, 77, 1));
    const struct {
        unsigned type;
        uint16_t seq;
        uint32_t status;
    } expected[] = {{UBUS_MSG_DATA, 3, 0},
                    {UBUS_MSG_DATA, 3, 0},
                    {UBUS_MSG_STATUS, 3, 0},
                    {UBUS_MSG_STATUS, 3, 9},
                    {UBUS_MSG_STATUS, 77, 1}};
    for (const auto& e : expected) {
        std::optional<frame> m = caller->recv();
        ASSERT_TRUE(m);
        EXPECT_EQ(m->type, e.type);
        EXPECT_EQ(m->seq, e.seq);
        EXPECT_EQ(m->peer, obj);
        EXPECT_EQ(m->u32(UBUS_ATTR_STATUS), e.status);
    }
    stranger.send(reply(UBUS_MSG_STATUS, 2, 0, strangers_obj));
    std::optional<frame> s = caller->recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->peer, strangers_obj);
}

TEST_F(Invoke, DescriptorsTravelOnlyWithInvokeAndStatus) {
    const struct {
        bus_client* from;
        bytes message;
        bus_client* to; // none: the daemon closes it, and the read end sees end of file
    } cases[] = {
        {&*caller, invoke(4, obj, obj, "fd"), &*owner},
        {&*owner, reply(UBUS_MSG_STATUS, 4), &*caller},
        {&*caller, msg(UBUS_MSG_PING, 1, 0), nullptr},
    };
    for (const auto& c : cases) {
        int p[2];
        char ch;
        ASSERT_EQ(pipe(p), 0);
        c.from->send(c.message, p[1]);
        close(p[1]);
        if (c.to) {
            std::optional<frame> got = c.to->recv();
            ASSERT_TRUE(got && got->fd >= 0);
            ASSERT_EQ(write(got->fd, "x", 1), 1);
            close(got->fd);
            EXPECT_EQ(read(p[0], &ch, 1), 1);
        } else {
            ASSERT_TRUE(c.from->recv() && c.from->recv());
            EXPECT_EQ(read(p[0], &ch, 1), 0);
        }
        close(p[0]);
    }
}

TEST_F(Invoke, AnOwnerGoneRightAfterReplyingIsStillHeard) {
    caller->send(invoke(7, obj, obj, "hello"));
    ASSERT_TRUE(owner->recv());
    owner->send(reply(UBUS_MSG_DATA, 7) + reply(UBUS_MSG_STATUS, 7));
    owner->close();
    std::optional<frame> d = caller->recv(), s = caller->recv();
    ASSERT_TRUE(d && s);
    EXPECT_EQ(d->type, UBUS_MSG_DATA);
    EXPECT_EQ(s->type, UBUS_MSG_STATUS);
    EXPECT_TRUE(caller->wait_gone("svc")) << "the object went with its owner";
    EXPECT_EQ(caller->ping(), 0);
}

TEST_F(Invoke, CallsNearTheSizeLimit) {
    bytes big = field(BLOBMSG_TYPE_STRING, "blob", bytes(900000, 'z'));
    big.back() = 0;
    caller->send(invoke(9, obj, obj, "m", attr(UBUS_ATTR_DATA, big)));
    std::optional<frame> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->payload(UBUS_ATTR_DATA), big);

    // A call at the limit is forwarded all the same, grown past it by the caller's names.
    bytes full = field(0, "", bytes(1048576 - 4 - 12 - 12 - 4, 0xab));
    bytes m = invoke(10, obj, obj, "m", attr(UBUS_ATTR_DATA, full));
    ASSERT_EQ(m.size() - 8, 1048576u);
    caller->send(m);
    fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_GT(fwd->raw.size() - 8, 1048576u);
    EXPECT_EQ(fwd->payload(UBUS_ATTR_DATA), full);
    EXPECT_EQ(owner->ping(), 0);
}

} // namespace
