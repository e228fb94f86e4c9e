// The built-in objects (events, ACL query), object events, and what clients of
// other users may do.
#include "daemon_test.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>

namespace {

const uid_t ghost = 54321; // a uid without an account

class System : public DaemonTest {
protected:
    static int call(bus_client& c, uint32_t obj, const std::string& method,
                    const std::optional<bytes>& args) {
        return c.request(
            invoke(c.next_seq++, obj, obj, method, args ? attr(UBUS_ATTR_DATA, *args) : bytes()));
    }
    static int listen(bus_client& c, uint32_t obj, const std::string& pattern) {
        return call(c, 1, "register", field_u32("object", obj) + field_str("pattern", pattern));
    }
    static int send_event(bus_client& c, const std::string& id, const bytes& data) {
        return call(c, 1, "send", field_str("id", id) + field(2, "data", data));
    }
    // The next event INVOKE: checked for shape, method and data.
    static void expect_event(bus_client& c, uint32_t listener, const std::string& method,
                             const bytes& data) {
        std::optional<frame> m = c.recv();
        ASSERT_TRUE(m) << method;
        EXPECT_EQ(m->type, UBUS_MSG_INVOKE);
        EXPECT_EQ(m->peer, 0u);
        EXPECT_EQ(m->u32(UBUS_ATTR_OBJID), listener);
        EXPECT_EQ(m->str(UBUS_ATTR_METHOD), method);
        EXPECT_EQ(to_hex(m->payload(UBUS_ATTR_DATA)), to_hex(data));
    }
};

// No ACL file was ever loaded: the sequence has not moved from 0.
TEST_F(System, AclQuery) {
    bus_client c(socket());
    c.send(invoke(4, 2, 2, "query", attr(UBUS_ATTR_DATA, {})));
    std::optional<frame> data = c.recv(), status = c.recv();
    ASSERT_TRUE(data && status);
    EXPECT_EQ(to_hex(data->raw),
              to_hex(msg(UBUS_MSG_DATA, 4, 2,
                         attr_u32(UBUS_ATTR_OBJID, 2) +
                             attr(UBUS_ATTR_DATA, field_u32("seq", 0) + field(1, "acl", {})))));
    EXPECT_EQ(to_hex(status->raw),
              to_hex(msg(UBUS_MSG_STATUS, 4, 2, attr_u32(UBUS_ATTR_STATUS, 0))));
    EXPECT_EQ(call(c, 2, "other", bytes{}), 1);
}

TEST_F(System, RegisterAndSendEvents) {
    bus_client sender(socket()), listener(socket());
    uint32_t sobj = sender.add_anonymous(), lobj = listener.add_anonymous();
    uint32_t named = sender.add_object("named", signature({}));
    auto reg = [](uint32_t obj, const char* pattern) {
        return field_u32("object", obj) + field_str("pattern", pattern);
    };
    const struct {
        std::optional<bytes> args;
        int status;
    } registers[] = {
        {std::nullopt, 2},
        {field_u32("object", sobj), 2},
        {field_str("pattern", "*"), 2},
        {reg(sobj, ""), 6},
        {reg(1, "*"), 6},    // a system object
        {reg(1023, "*"), 6}, // below the first id a client object can have
        {reg(5000, "*"), 4},
        {reg(lobj, "*"), 6}, // someone else's object
        {reg(named, "x"), 0},
    };
    for (const auto& r : registers)
        EXPECT_EQ(call(sender, 1, "register", r.args), r.status)
            << (r.args ? to_hex(*r.args) : "no data");
    EXPECT_EQ(call(sender, 1, "unknown", bytes{}), 1);
    ASSERT_EQ(listen(sender, sobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.x"), 0);

    // Delivered once per listener, never back to the sender.
    bytes payload = field_u32("k", 1);
    EXPECT_EQ(send_event(sender, "custom.x", payload), 0);
    expect_event(listener, lobj, "custom.x", payload);
    EXPECT_FALSE(listener.recv(200));
    EXPECT_FALSE(sender.recv(50));
    EXPECT_EQ(send_event(sender, "other", payload), 0);
    EXPECT_FALSE(listener.recv(200));
    EXPECT_EQ(send_event(sender, "ubus.object.add", payload), 6);
    EXPECT_EQ(call(sender, 1, "send", field_str("id", "custom.y")), 2);
}

TEST_F(System, ObjectEvents) {
    bus_client c(socket());
    uint32_t lobj = c.add_anonymous();
    ASSERT_EQ(listen(c, lobj, "ubus.object.*"), 0);
    auto event = [](uint32_t id, const char* path) {
        return field_u32("id", id) + field_str("path", path);
    };
    // The adder's own event comes before its reply; anonymous objects make no noise.
    c.send(msg(UBUS_MSG_ADD_OBJECT, 50, 0, attr_str(UBUS_ATTR_OBJPATH, "self") + signature({})));
    std::optional<frame> ev = c.recv(), data = c.recv(), status = c.recv();
    ASSERT_TRUE(ev && data && status);
    EXPECT_EQ(ev->str(UBUS_ATTR_METHOD), "ubus.object.add");
    EXPECT_EQ(to_hex(ev->payload(UBUS_ATTR_DATA)),
              to_hex(event(data->u32(UBUS_ATTR_OBJID), "self")));
    EXPECT_EQ(data->type, UBUS_MSG_DATA);
    EXPECT_EQ(status->type, UBUS_MSG_STATUS);
    bus_client owner(socket());
    owner.add_anonymous();
    EXPECT_FALSE(c.recv(200));

    std::vector<uint32_t> ids;
    for (const char* p : {"r.1", "r.2", "r.3"}) {
        ids.push_back(owner.add_object(p, signature({})));
        expect_event(c, lobj, "ubus.object.add", event(ids.back(), p));
    }
    ASSERT_EQ(owner.remove(ids[1]), 0);
    expect_event(c, lobj, "ubus.object.remove", event(ids[1], "r.2"));
    // On disconnect the remaining objects go newest first.
    owner.close();
    expect_event(c, lobj, "ubus.object.remove", event(ids[2], "r.3"));
    expect_event(c, lobj, "ubus.object.remove", event(ids[0], "r.1"));
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
    std::unique_ptr<bus_client> connect_as(uid_t uid, bool hello = true) {
        std::unique_ptr<bus_client> c;
        EXPECT_EQ(seteuid(uid), 0);
        try {
            c = std::make_unique<bus_client>(socket(), hello);
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
    bus_client root(socket());
    uint32_t with_methods = root.add_object("svc.methods", demo_signature());
    uint32_t without = root.add_object("svc.none", signature({}));
    ASSERT_TRUE(with_methods && without);

    std::unique_ptr<bus_client> nobody = connect_as(pw->pw_uid);
    ASSERT_TRUE(nobody);
    int status = -1;
    EXPECT_EQ(nobody->add_object("mine", signature({}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    uint32_t anon = nobody->add_anonymous();
    EXPECT_NE(anon, 0u);
    EXPECT_EQ(nobody->list(std::nullopt), Paths{"svc.none"});
    EXPECT_EQ(nobody->lookup(std::string("svc.methods")), 0) << "found, but not shown";
    EXPECT_EQ(call(*nobody, with_methods, "hello", bytes{}), 6);
    EXPECT_EQ(call(*nobody, without, "x", bytes{}), 6);
    EXPECT_FALSE(root.recv(100));
    EXPECT_EQ(call(*nobody, 2, "query", bytes{}), 0);
    EXPECT_EQ(listen(*nobody, anon, "*"), 6);
    EXPECT_EQ(send_event(*nobody, "custom", bytes{}), 6);
    EXPECT_EQ(call(*nobody, 3, "add", bytes{}), 6);

    // Root's calls to nobody's anonymous object carry root's name.
    root.send(invoke(8, anon, anon, "m"));
    std::optional<frame> fwd = nobody->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(UBUS_ATTR_USER), user_name());
}

TEST_F(OtherUsers, AccountlessUidIsTurnedAwayBeforeHello) {
    if (getpwuid(ghost))
        GTEST_SKIP() << "uid " << ghost << " has an account here";
    std::unique_ptr<bus_client> c = connect_as(ghost, false);
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->closed_by_peer());
    bus_client root(socket());
    EXPECT_EQ(root.ping(), 0);
}

// A daemon run by an account without a passwd entry serves that account, which gets its
// numeric ids as names. The daemon runs from a copy, with the libubox it loads, in a
// directory any account can read (a build in a private home is not); the real uid changes
// too, so that the loader honours LD_LIBRARY_PATH, and the saved uid brings root back.
TEST(OwnAccount, AccountlessDaemonUserIsServed) {
    if (geteuid() != 0 || getpwuid(ghost))
        GTEST_SKIP() << "needs root and a uid " << ghost << " without an account";
    char tmpl[] = "/tmp/orvix-ubusd-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, exe = dir + "/orvix-ubusd", lib = dir + "/" HOSTBUS_UBOX_SONAME;
    for (auto [from, to] : {std::pair{ORVIX_TEST_UBUSD, exe}, {HOSTBUS_UBOX_LIB, lib}}) {
        std::ifstream in(from, std::ios::binary);
        std::ofstream(to, std::ios::binary) << in.rdbuf();
    }
    for (const std::string& path : {dir, exe, lib})
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    setenv("LD_LIBRARY_PATH", dir.c_str(), 1);
    struct test_daemon d {};
    ASSERT_EQ(setresuid(ghost, ghost, 0), 0);
    int started = test_daemon_start(&d, exe.c_str());
    std::optional<bus_client> owner, caller;
    try {
        if (started == 0) {
            owner.emplace(d.socket);
            caller.emplace(d.socket);
        }
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what(); // still root again below
    }
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    unsetenv("LD_LIBRARY_PATH");
    ASSERT_TRUE(started == 0 && owner && caller);
    uint32_t obj = owner->add_object("ghost", signature({"m"}));
    caller->send(invoke(1, obj, obj, "m"));
    std::optional<frame> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(UBUS_ATTR_USER), std::to_string(ghost));
    EXPECT_EQ(fwd->str(UBUS_ATTR_GROUP), group_name());
    owner.reset();
    caller.reset();
    test_daemon_cleanup(&d);
    for (const std::string& path : {exe, lib})
        unlink(path.c_str());
    rmdir(dir.c_str());
}

} // namespace
