// The built-in objects (events, ACL query, monitor), subscriptions and notifications, and
// what clients of other users may do.
#include "wire.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace wire;

namespace {

class System : public DaemonTest {
protected:
    int call(Client& c, uint32_t obj, const std::string& method, const std::optional<Bytes>& args,
             std::vector<Msg>* data = nullptr, uint32_t peer = 0) {
        std::vector<Bytes> attrs = {attr_u32(A_OBJID, obj), attr_str(A_METHOD, method)};
        if (args)
            attrs.push_back(attr(A_DATA, *args));
        return c.request(msg(INVOKE, c.next_seq++, peer ? peer : obj, attrs), data);
    }

    int listen(Client& c, uint32_t obj, const std::string& pattern) {
        return call(c, 1, "register",
                    cat({field_u32("object", obj), field_str("pattern", pattern)}));
    }

    int send_event(Client& c, const std::string& id, const Bytes& data) {
        return call(c, 1, "send", cat({field_str("id", id), field(2, "data", data)}));
    }

    // The next event INVOKE, checked for shape.
    std::optional<Msg> next_event(Client& c, uint32_t listener, int timeout_ms = 5000) {
        std::optional<Msg> m = c.recv(timeout_ms);
        if (m) {
            EXPECT_EQ(m->type, INVOKE);
            EXPECT_EQ(m->peer, 0u);
            EXPECT_EQ(m->u32(A_OBJID), listener);
        }
        return m;
    }
};

TEST_F(System, AclQuery) {
    Client c(socket());
    c.send(
        msg(INVOKE, 4, 2, {attr_u32(A_OBJID, 2), attr_str(A_METHOD, "query"), attr(A_DATA, {})}));
    std::optional<Msg> data = c.recv();
    ASSERT_TRUE(data);
    Bytes body =
        cat({attr_u32(A_OBJID, 2), nest(A_DATA, {field_u32("seq", 1), field(1, "acl", {})})});
    EXPECT_EQ(to_hex(data->raw), to_hex(msg(DATA, 4, 2, {body})));
    std::optional<Msg> status = c.recv();
    ASSERT_TRUE(status);
    EXPECT_EQ(to_hex(status->raw), to_hex(msg(STATUS, 4, 2, {attr_u32(A_STATUS, 0)})));
    EXPECT_EQ(call(c, 2, "other", Bytes{}), 1);
    // Monitoring is not offered, and what object 3 does not know is a missing method.
    EXPECT_EQ(call(c, 3, "add", Bytes{}), 8);
    EXPECT_EQ(call(c, 3, "remove", Bytes{}), 8);
    EXPECT_EQ(call(c, 3, "other", Bytes{}), 3);
}

TEST_F(System, EventRegisterStatuses) {
    Client c(socket()), other(socket());
    uint32_t mine = c.add_anonymous(), theirs = other.add_anonymous();
    EXPECT_EQ(call(c, 1, "register", std::nullopt), 2);
    EXPECT_EQ(call(c, 1, "register", Bytes{}), 2);
    EXPECT_EQ(call(c, 1, "register", field_u32("object", mine)), 2);
    EXPECT_EQ(call(c, 1, "register", field_str("pattern", "*")), 2);
    EXPECT_EQ(listen(c, 5000, "*"), 4);
    EXPECT_EQ(listen(c, theirs, "*"), 6);
    EXPECT_EQ(listen(c, mine, "*"), 0);
    EXPECT_EQ(listen(c, mine, "*"), 0);
    EXPECT_EQ(call(c, 1, "unknown", Bytes{}), 1);
}

TEST_F(System, ObjectAddAndRemoveEvents) {
    Client listener(socket()), owner(socket());
    uint32_t lobj = listener.add_anonymous();
    ASSERT_EQ(listen(listener, lobj, "ubus.object.*"), 0);

    uint32_t id = owner.add_object("ev.one", signature({"m"}));
    std::optional<Msg> add = next_event(listener, lobj);
    ASSERT_TRUE(add);
    EXPECT_EQ(add->str(A_METHOD), "ubus.object.add");
    EXPECT_EQ(add->payload(A_DATA), cat({field_u32("id", id), field_str("path", "ev.one")}));

    // Anonymous objects make no noise.
    owner.add_anonymous();
    EXPECT_FALSE(listener.recv(200));

    ASSERT_EQ(owner.request(msg(REMOVE_OBJECT, 1, 0, {attr_u32(A_OBJID, id)})), 0);
    std::optional<Msg> rm = next_event(listener, lobj);
    ASSERT_TRUE(rm);
    EXPECT_EQ(rm->str(A_METHOD), "ubus.object.remove");
    EXPECT_EQ(rm->payload(A_DATA), cat({field_u32("id", id), field_str("path", "ev.one")}));
    EXPECT_NE(rm->seq, add->seq);
}

TEST_F(System, RemovalsOnDisconnectComeNewestFirst) {
    Client listener(socket());
    uint32_t lobj = listener.add_anonymous();
    ASSERT_EQ(listen(listener, lobj, "ubus.object.remove"), 0);
    {
        Client owner(socket());
        for (const char* p : {"r.1", "r.2", "r.3"})
            ASSERT_NE(owner.add_object(p, signature({})), 0u);
    }
    for (const char* p : {"r.3", "r.2", "r.1"}) {
        std::optional<Msg> rm = next_event(listener, lobj);
        ASSERT_TRUE(rm);
        EXPECT_EQ(rm->str(A_METHOD), "ubus.object.remove");
        EXPECT_EQ(rm->payload(A_DATA).size(),
                  field_u32("id", 0).size() + field_str("path", p).size());
        Bytes data = rm->payload(A_DATA);
        Bytes path = field_str("path", p);
        EXPECT_TRUE(std::equal(path.begin(), path.end(), data.end() - long(path.size()))) << p;
    }
}

TEST_F(System, AddEventReachesTheAdderBeforeItsReply) {
    Client c(socket());
    uint32_t lobj = c.add_anonymous();
    ASSERT_EQ(listen(c, lobj, "ubus.object.add"), 0);
    c.send(msg(ADD_OBJECT, 50, 0, {attr_str(A_OBJPATH, "self"), signature({})}));
    std::optional<Msg> first = c.recv(), second = c.recv(), third = c.recv();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->type, INVOKE);
    EXPECT_EQ(first->str(A_METHOD), "ubus.object.add");
    EXPECT_EQ(second->type, DATA);
    EXPECT_EQ(third->type, STATUS);
}

TEST_F(System, SentEventsReachOtherListenersOnce) {
    Client sender(socket()), listener(socket());
    uint32_t sobj = sender.add_anonymous(), lobj = listener.add_anonymous();
    ASSERT_EQ(listen(sender, sobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.x"), 0);
    Bytes payload = field_u32("k", 1);
    EXPECT_EQ(send_event(sender, "custom.x", payload), 0);
    std::optional<Msg> ev = next_event(listener, lobj);
    ASSERT_TRUE(ev);
    EXPECT_EQ(ev->str(A_METHOD), "custom.x");
    EXPECT_EQ(ev->payload(A_DATA), payload);
    EXPECT_FALSE(listener.recv(200));
    EXPECT_FALSE(sender.recv(50));

    EXPECT_EQ(send_event(sender, "other", payload), 0);
    EXPECT_FALSE(listener.recv(200));
    EXPECT_EQ(send_event(sender, "ubus.object.add", payload), 6);
    EXPECT_EQ(call(sender, 1, "send", field_str("id", "custom.y")), 2);
    EXPECT_EQ(call(sender, 1, "send", std::nullopt), 2);
}

TEST_F(System, SubscriptionsAndNotifications) {
    Client owner(socket()), other(socket());
    uint32_t obj = owner.add_object("notifier", signature({"m"}));
    uint32_t sub = other.add_anonymous();
    EXPECT_EQ(
        other.request(msg(SUBSCRIBE, 1, 0, {attr_u32(A_OBJID, sub), attr_u32(A_TARGET, obj)})), 8);
    EXPECT_EQ(
        other.request(msg(UNSUBSCRIBE, 2, 0, {attr_u32(A_OBJID, sub), attr_u32(A_TARGET, obj)})),
        8);

    owner.send(
        msg(NOTIFY, 3, 0, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "n"), nest(A_DATA, {})}));
    std::optional<Msg> s = owner.recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(to_hex(s->raw),
              to_hex(msg(STATUS, 3, 0, {attr_u32(A_STATUS, 0), attr(A_SUBSCRIBERS, {})})));
    owner.send(msg(NOTIFY, 4, 0,
                   {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "n"), attr(A_NO_REPLY, {1})}));
    s = owner.recv();
    ASSERT_TRUE(s);
    EXPECT_EQ(to_hex(s->raw), to_hex(msg(STATUS, 4, 0, {attr_u32(A_STATUS, 0)})));
    EXPECT_EQ(other.request(msg(NOTIFY, 5, 0, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "n")})),
              6);
    EXPECT_EQ(other.request(msg(NOTIFY, 6, 0, {attr_u32(A_OBJID, 4242), attr_str(A_METHOD, "n")})),
              4);
    EXPECT_EQ(other.request(msg(NOTIFY, 7, 0, {})), 2);
}

// Clients of another account: root's tests switch their effective uid for the connect,
// which is what the daemon sees as the peer's credentials.
class OtherUsers : public System {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root to connect as another user";
        System::SetUp();
        ASSERT_EQ(chmod(daemon_.dir, 0755), 0);
    }

    std::unique_ptr<Client> connect_as(uid_t uid, bool hello = true) {
        std::unique_ptr<Client> c;
        EXPECT_EQ(seteuid(uid), 0);
        try {
            c = std::make_unique<Client>(socket(), hello);
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
        EXPECT_EQ(seteuid(0), 0);
        return c;
    }
};

TEST_F(OtherUsers, NobodyIsDeniedWithoutAclFiles) {
    struct passwd* pw = getpwnam("nobody");
    if (!pw)
        GTEST_SKIP() << "no account 'nobody'";
    Client root(socket());
    uint32_t with_methods = root.add_object("svc.methods", demo_signature());
    uint32_t without = root.add_object("svc.none", signature({}));
    ASSERT_NE(with_methods, 0u);
    ASSERT_NE(without, 0u);

    std::unique_ptr<Client> nobody = connect_as(pw->pw_uid);
    ASSERT_TRUE(nobody);
    int status = -1;
    EXPECT_EQ(nobody->add_object("mine", signature({}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    uint32_t anon = nobody->add_anonymous();
    EXPECT_NE(anon, 0u);
    EXPECT_EQ(nobody->list(std::nullopt), std::vector<std::string>{"svc.none"});
    std::vector<Msg> data;
    EXPECT_EQ(nobody->lookup(std::string("svc.methods"), &data), 0);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(call(*nobody, with_methods, "hello", Bytes{}), 6);
    EXPECT_EQ(call(*nobody, without, "x", Bytes{}), 6);
    EXPECT_FALSE(root.recv(100));
    EXPECT_EQ(call(*nobody, 2, "query", Bytes{}), 0);
    EXPECT_EQ(listen(*nobody, anon, "*"), 6);
    EXPECT_EQ(send_event(*nobody, "custom", Bytes{}), 6);
    EXPECT_EQ(call(*nobody, 3, "add", Bytes{}), 6);
    EXPECT_EQ(nobody->request(
                  msg(SUBSCRIBE, 1, 0, {attr_u32(A_OBJID, anon), attr_u32(A_TARGET, without)})),
              4);
    EXPECT_EQ(nobody->ping(), 0);

    // Root's calls to nobody's anonymous object carry nobody's name.
    root.send(msg(INVOKE, 8, anon, {attr_u32(A_OBJID, anon), attr_str(A_METHOD, "m")}));
    std::optional<Msg> fwd = nobody->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(A_USER), user_name());
}

TEST_F(OtherUsers, AccountlessUidIsTurnedAwayBeforeHello) {
    const uid_t ghost = 54321;
    if (getpwuid(ghost))
        GTEST_SKIP() << "uid " << ghost << " has an account here";
    std::unique_ptr<Client> c = connect_as(ghost, false);
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->closed_by_peer());
    Client root(socket());
    EXPECT_EQ(root.ping(), 0);
}

// A daemon run by an account without a passwd entry serves that account, which gets
// its numeric ids as names.
TEST(OwnAccount, AccountlessDaemonUserIsServed) {
    const uid_t ghost = 54321;
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run the daemon as another uid";
    if (getpwuid(ghost))
        GTEST_SKIP() << "uid " << ghost << " has an account here";
    struct test_daemon d {};
    ASSERT_EQ(seteuid(ghost), 0);
    int started = test_daemon_start(&d, ORVIX_TEST_UBUSD);
    std::unique_ptr<Client> owner, caller;
    if (started == 0) {
        owner = std::make_unique<Client>(d.socket);
        caller = std::make_unique<Client>(d.socket);
    }
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(started, 0);
    uint32_t obj = owner->add_object("ghost", signature({"m"}));
    ASSERT_NE(obj, 0u);
    caller->send(msg(INVOKE, 1, obj, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, "m")}));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(A_USER), std::to_string(ghost));
    EXPECT_EQ(fwd->str(A_GROUP), group_name());
    owner.reset();
    caller.reset();
    test_daemon_cleanup(&d);
}

} // namespace
