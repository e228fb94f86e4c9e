// The built-in objects (events, ACL query, monitor), object events, and what clients of
// other users may do.
#include "wire.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>

using namespace wire;

namespace {

const uid_t ghost = 54321; // a uid without an account

class System : public DaemonTest {
protected:
    static int call(Client& c, uint32_t obj, const std::string& method,
                    const std::optional<Bytes>& args) {
        std::vector<Bytes> extra;
        if (args)
            extra.push_back(attr(A_DATA, *args));
        return c.request(invoke(c.next_seq++, obj, method, extra));
    }
    static int listen(Client& c, uint32_t obj, const std::string& pattern) {
        return call(c, 1, "register",
                    cat({field_u32("object", obj), field_str("pattern", pattern)}));
    }
    static int send_event(Client& c, const std::string& id, const Bytes& data) {
        return call(c, 1, "send", cat({field_str("id", id), field(2, "data", data)}));
    }
    // The next event INVOKE: checked for shape, method and data.
    static void expect_event(Client& c, uint32_t listener, const std::string& method,
                             const Bytes& data) {
        std::optional<Msg> m = c.recv();
        ASSERT_TRUE(m) << method;
        EXPECT_EQ(m->type, INVOKE);
        EXPECT_EQ(m->peer, 0u);
        EXPECT_EQ(m->u32(A_OBJID), listener);
        EXPECT_EQ(m->str(A_METHOD), method);
        EXPECT_EQ(to_hex(m->payload(A_DATA)), to_hex(data));
    }
};

TEST_F(System, AclQueryAndMonitor) {
    Client c(socket());
    c.send(invoke(4, 2, "query", {attr(A_DATA, {})}));
    std::optional<Msg> data = c.recv(), status = c.recv();
    ASSERT_TRUE(data && status);
    EXPECT_EQ(to_hex(data->raw),
              to_hex(msg(DATA, 4, 2,
                         {attr_u32(A_OBJID, 2),
                          attr(A_DATA, cat({field_u32("seq", 1), field(1, "acl", {})}))})));
    EXPECT_EQ(to_hex(status->raw), to_hex(msg(STATUS, 4, 2, {attr_u32(A_STATUS, 0)})));
    EXPECT_EQ(call(c, 2, "other", Bytes{}), 1);
    // Monitoring is not offered, and what object 3 does not know is a missing method.
    EXPECT_EQ(call(c, 3, "add", Bytes{}), 8);
    EXPECT_EQ(call(c, 3, "remove", Bytes{}), 8);
    EXPECT_EQ(call(c, 3, "other", Bytes{}), 3);
}

TEST_F(System, RegisterAndSendEvents) {
    Client sender(socket()), listener(socket());
    uint32_t sobj = sender.add_anonymous(), lobj = listener.add_anonymous();
    uint32_t named = sender.add_object("named", signature({}));
    auto reg = [](uint32_t obj, const char* pattern) {
        return cat({field_u32("object", obj), field_str("pattern", pattern)});
    };
    const struct {
        std::optional<Bytes> args;
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
    EXPECT_EQ(call(sender, 1, "unknown", Bytes{}), 1);
    ASSERT_EQ(listen(sender, sobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.*"), 0);
    ASSERT_EQ(listen(listener, lobj, "custom.x"), 0);

    // Delivered once per listener, never back to the sender.
    Bytes payload = field_u32("k", 1);
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
    Client c(socket());
    uint32_t lobj = c.add_anonymous();
    ASSERT_EQ(listen(c, lobj, "ubus.object.*"), 0);
    auto event = [](uint32_t id, const char* path) {
        return cat({field_u32("id", id), field_str("path", path)});
    };
    // The adder's own event comes before its reply; anonymous objects make no noise.
    c.send(msg(ADD_OBJECT, 50, 0, {attr_str(A_OBJPATH, "self"), signature({})}));
    std::optional<Msg> ev = c.recv(), data = c.recv(), status = c.recv();
    ASSERT_TRUE(ev && data && status);
    EXPECT_EQ(ev->str(A_METHOD), "ubus.object.add");
    EXPECT_EQ(to_hex(ev->payload(A_DATA)), to_hex(event(data->u32(A_OBJID), "self")));
    EXPECT_EQ(data->type, DATA);
    EXPECT_EQ(status->type, STATUS);
    Client owner(socket());
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
    owner.close_now();
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
    ASSERT_TRUE(with_methods && without);

    std::unique_ptr<Client> nobody = connect_as(pw->pw_uid);
    ASSERT_TRUE(nobody);
    int status = -1;
    EXPECT_EQ(nobody->add_object("mine", signature({}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    uint32_t anon = nobody->add_anonymous();
    EXPECT_NE(anon, 0u);
    EXPECT_EQ(nobody->list(std::nullopt), Paths{"svc.none"});
    EXPECT_EQ(nobody->lookup(std::string("svc.methods")), 0) << "found, but not shown";
    EXPECT_EQ(call(*nobody, with_methods, "hello", Bytes{}), 6);
    EXPECT_EQ(call(*nobody, without, "x", Bytes{}), 6);
    EXPECT_FALSE(root.recv(100));
    EXPECT_EQ(call(*nobody, 2, "query", Bytes{}), 0);
    EXPECT_EQ(listen(*nobody, anon, "*"), 6);
    EXPECT_EQ(send_event(*nobody, "custom", Bytes{}), 6);
    EXPECT_EQ(call(*nobody, 3, "add", Bytes{}), 6);

    // Root's calls to nobody's anonymous object carry root's name.
    root.send(invoke(8, anon, "m"));
    std::optional<Msg> fwd = nobody->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(A_USER), user_name());
}

TEST_F(OtherUsers, AccountlessUidIsTurnedAwayBeforeHello) {
    if (getpwuid(ghost))
        GTEST_SKIP() << "uid " << ghost << " has an account here";
    std::unique_ptr<Client> c = connect_as(ghost, false);
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->closed_by_peer());
    Client root(socket());
    EXPECT_EQ(root.ping(), 0);
}

// A copy of the daemon, with the libraries it loads from the build tree, in a directory any
// account can read: another account may not reach the build tree (a clone in a private home).
class DaemonCopy {
public:
    DaemonCopy() {
        char tmpl[] = "/tmp/orvix-ubusd-XXXXXX";
        if (!mkdtemp(tmpl))
            throw std::runtime_error("mkdtemp failed");
        dir = tmpl;
        chmod(dir.c_str(), 0755);
        exe = place(ORVIX_TEST_UBUSD);
        FILE* trace =
            popen(("LD_TRACE_LOADED_OBJECTS=1 '" + std::string(ORVIX_TEST_UBUSD) + "' 2>/dev/null")
                      .c_str(),
                  "r");
        char line[4096];
        while (trace && fgets(line, sizeof(line), trace)) {
            std::string lib(line), from = HOSTBUS_BUILD_DIR "/";
            size_t at = lib.find("=> " + from), end = lib.find(" (");
            if (at != std::string::npos && end != std::string::npos)
                place(lib.substr(at + 3, end - at - 3));
        }
        if (trace)
            pclose(trace);
    }
    ~DaemonCopy() {
        for (const std::string& f : files_)
            unlink(f.c_str());
        rmdir(dir.c_str());
    }

    std::string dir, exe;

private:
    std::string place(const std::string& from) {
        std::string to = dir + from.substr(from.rfind('/'));
        std::ifstream in(from, std::ios::binary);
        std::ofstream(to, std::ios::binary) << in.rdbuf();
        chmod(to.c_str(), 0755);
        files_.push_back(to);
        return to;
    }
    std::vector<std::string> files_;
};

// A daemon run by an account without a passwd entry serves that account, which gets
// its numeric ids as names. The real uid changes too, so that the loader honours
// LD_LIBRARY_PATH; the saved uid brings root back.
TEST(OwnAccount, AccountlessDaemonUserIsServed) {
    if (geteuid() != 0 || getpwuid(ghost))
        GTEST_SKIP() << "needs root and a uid " << ghost << " without an account";
    DaemonCopy copy;
    const char* old_path = getenv("LD_LIBRARY_PATH");
    std::optional<std::string> saved_path;
    if (old_path)
        saved_path = old_path;
    setenv("LD_LIBRARY_PATH", copy.dir.c_str(), 1);
    struct test_daemon d {};
    ASSERT_EQ(setresuid(ghost, ghost, 0), 0);
    int started = test_daemon_start(&d, copy.exe.c_str());
    std::unique_ptr<Client> owner, caller;
    try {
        if (started == 0) {
            owner = std::make_unique<Client>(d.socket);
            caller = std::make_unique<Client>(d.socket);
        }
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    if (saved_path)
        setenv("LD_LIBRARY_PATH", saved_path->c_str(), 1);
    else
        unsetenv("LD_LIBRARY_PATH");
    ASSERT_EQ(started, 0);
    ASSERT_TRUE(owner && caller);
    uint32_t obj = owner->add_object("ghost", signature({"m"}));
    caller->send(invoke(1, obj, "m"));
    std::optional<Msg> fwd = owner->recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->str(A_USER), std::to_string(ghost));
    EXPECT_EQ(fwd->str(A_GROUP), group_name());
    owner.reset();
    caller.reset();
    test_daemon_cleanup(&d);
}

} // namespace
