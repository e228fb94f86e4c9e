// Access rules from ACL files: which files count, what they grant to clients other than
// root, reloading on SIGHUP, and the ACL query. Every test writes its files as root and
// connects as other accounts, so all of them need root.
#include "daemon_test.h"

#include <orvix_testing/process.h>

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>

namespace {

// The rules the device's behaviour was observed with.
const char* const example_rules = R"({ "user": "nobody",
  "access": { "aclobj": { "methods": [ "echo", "empty" ] }, "pre.*": { "methods": [ "*" ] },
              "privobj": { "acl": { "foo": "bar", "n": 1 } }, "tagonly": { "tags": [ "x" ] },
              "nokeys": { } },
  "publish": [ "pubok", "pubpre*", "privobj" ], "subscribe": [ "aclobj", "anonsub" ],
  "listen": [ "ev.ok", "evpre*" ], "send": [ "ev.ok", "sendpre*" ] })";

// What the daemon learns of a client when it connects.
struct account {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups; // supplementary
};

class Acl : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: only files owned by root count, and clients must "
                            "connect as other accounts";
        struct passwd* pw = getpwnam("nobody");
        if (!pw)
            GTEST_SKIP() << "no account 'nobody'";
        nobody_ = {pw->pw_uid, pw->pw_gid, {}};
        char tmpl[] = "/tmp/orvix-acl-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        acl_dir_ = dir_ + "/acl.d";
        socket_ = dir_ + "/ubus.sock";
        // Other accounts must reach the socket.
        ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
        ASSERT_EQ(mkdir(acl_dir_.c_str(), 0755), 0);
    }
    void TearDown() override {
        daemon_.reset();
        if (!dir_.empty())
            std::filesystem::remove_all(dir_);
    }

    void write(const std::string& name, const std::string& text, mode_t mode = 0644, uid_t uid = 0,
               gid_t gid = 0) {
        const std::string path = acl_dir_ + "/" + name;
        std::ofstream(path) << text;
        ASSERT_EQ(chown(path.c_str(), uid, gid), 0) << path;
        ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
    }
    void start() {
        daemon_ = std::make_unique<process>(
            std::vector<std::string>{ORVIX_TEST_UBUSD, "-A", acl_dir_, "-s", socket_});
        for (int i = 0; i < 1000; i++, usleep(5000)) {
            try {
                bus_client probe(socket_);
                return;
            } catch (const std::exception&) {
            }
        }
        FAIL() << "the daemon does not accept";
    }
    // The daemon reads the ids and the supplementary groups as the client connects, which
    // its HELLO shows to be over: root's own are back before anything else happens.
    std::unique_ptr<bus_client> connect_as(const account& a) {
        std::vector<gid_t> saved(static_cast<size_t>(getgroups(0, nullptr)));
        EXPECT_EQ(getgroups(static_cast<int>(saved.size()), saved.data()), int(saved.size()));
        const gid_t egid = getegid();
        std::unique_ptr<bus_client> c;
        EXPECT_EQ(setgroups(a.groups.size(), a.groups.data()), 0);
        EXPECT_EQ(setegid(a.gid), 0);
        EXPECT_EQ(seteuid(a.uid), 0);
        try {
            c = std::make_unique<bus_client>(socket_);
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
        EXPECT_EQ(seteuid(0), 0);
        EXPECT_EQ(setegid(egid), 0);
        EXPECT_EQ(setgroups(saved.size(), saved.data()), 0);
        return c;
    }

    static int call(bus_client& c, uint32_t obj, const std::string& method,
                    const bytes& args = {}) {
        return c.request(invoke(c.next_seq++, obj, obj, method, attr(UBUS_ATTR_DATA, args)));
    }
    static int listen(bus_client& c, uint32_t obj, const std::string& pattern) {
        return call(c, 1, "register", field_u32("object", obj) + field_str("pattern", pattern));
    }
    static int send_event(bus_client& c, const std::string& id) {
        return call(c, 1, "send", field_str("id", id) + table("data", {}));
    }
    static int subscribe(bus_client& c, uint32_t subscriber, uint32_t target) {
        return c.request(
            msg(UBUS_MSG_SUBSCRIBE, c.next_seq++, 0,
                attr_u32(UBUS_ATTR_OBJID, subscriber) + attr_u32(UBUS_ATTR_TARGET, target)));
    }
    static int publish(bus_client& c, const std::string& path) {
        int status = -1;
        c.add_object(path, signature({}), nullptr, &status);
        return status;
    }
    // The ACL query's DATA: the "seq" and "acl" fields it holds.
    static std::string query(bus_client& c) {
        std::vector<frame> data;
        EXPECT_EQ(c.request(invoke(c.next_seq++, 2, 2, "query"), &data), 0);
        return data.size() == 1 ? to_hex(data[0].payload(UBUS_ATTR_DATA)) : "no DATA";
    }
    static std::string query_answer(uint32_t seq, const bytes& items) {
        return to_hex(field_u32("seq", seq) + field(BLOBMSG_TYPE_ARRAY, "acl", items));
    }
    static std::string name_of_group(gid_t gid) {
        struct group* gr = getgrgid(gid);
        return gr ? gr->gr_name : std::to_string(gid);
    }

    account nobody_{};
    std::string dir_, acl_dir_, socket_;
    std::unique_ptr<process> daemon_;
};

TEST_F(Acl, WhatTheExampleRulesGrantNobody) {
    write("example.json", example_rules);
    start();
    bus_client root(socket_);
    std::map<std::string, uint32_t> ids;
    const std::map<std::string, std::vector<std::string>> objects = {
        {"aclobj", {"echo", "empty", "other"}},
        {"pre", {"echo"}},
        {"pre.x", {"echo", "x"}},
        {"privobj", {"echo"}},
        {"tagonly", {"echo"}},
        {"nokeys", {"echo"}},
        {"other", {"echo"}},
        {"zeroobj", {}},
    };
    for (const auto& [path, methods] : objects)
        ASSERT_NE(ids[path] = root.add_object(path, signature(methods)), 0u) << path;
    ids[""] = root.add_anonymous();
    std::unique_ptr<bus_client> nobody = connect_as(nobody_);
    ASSERT_TRUE(nobody);

    // Denied calls never reach the owner, whether or not it has the method; allowed ones
    // carry the caller's names.
    const struct {
        const char* path;
        const char* method;
        bool allowed;
    } calls[] = {
        {"aclobj", "echo", true},      {"aclobj", "empty", true},  {"aclobj", "other", false},
        {"aclobj", "nomethod", false}, {"pre.x", "x", true},       {"pre.x", "nomethod", true},
        {"pre", "echo", false},        {"privobj", "echo", false}, {"tagonly", "echo", false},
        {"nokeys", "echo", false},     {"other", "echo", false},   {"zeroobj", "echo", false},
        {"", "anything", true}, // anonymous: anyone may call it
    };
    for (const auto& c : calls) {
        const uint32_t id = ids[c.path];
        nobody->send(invoke(nobody->next_seq++, id, id, c.method));
        if (!c.allowed) {
            std::optional<frame> status = nobody->recv();
            ASSERT_TRUE(status) << c.path << " " << c.method;
            EXPECT_EQ(status->u32(UBUS_ATTR_STATUS), 6u) << c.path << " " << c.method;
            continue;
        }
        std::optional<frame> fwd = root.recv();
        ASSERT_TRUE(fwd) << c.path << " " << c.method;
        EXPECT_EQ(fwd->str(UBUS_ATTR_METHOD), c.method);
        EXPECT_EQ(fwd->str(UBUS_ATTR_USER), "nobody");
        EXPECT_EQ(fwd->str(UBUS_ATTR_GROUP), name_of_group(nobody_.gid));
    }
    EXPECT_FALSE(root.recv(100));

    uint32_t sub = nobody->add_anonymous();
    bus_client& n = *nobody;
    const struct {
        const char* what;
        std::function<int()> request;
        int status;
    } requests[] = {
        {"publish pubok", [&] { return publish(n, "pubok"); }, 0},
        {"publish pubpre", [&] { return publish(n, "pubpre"); }, 0},
        {"publish pubpre.1", [&] { return publish(n, "pubpre.1"); }, 0},
        {"publish PUBOK", [&] { return publish(n, "PUBOK"); }, 2},
        {"publish pubok.x", [&] { return publish(n, "pubok.x"); }, 2},
        {"publish other2", [&] { return publish(n, "other2"); }, 2},
        {"subscribe aclobj", [&] { return subscribe(n, sub, ids["aclobj"]); }, 0},
        {"subscribe other", [&] { return subscribe(n, sub, ids["other"]); }, 4},
        {"subscribe zeroobj", [&] { return subscribe(n, sub, ids["zeroobj"]); }, 4},
        {"subscribe root's anonymous", [&] { return subscribe(n, sub, ids[""]); }, 4},
        {"listen ev.ok", [&] { return listen(n, sub, "ev.ok"); }, 0},
        {"listen ev.ok*", [&] { return listen(n, sub, "ev.ok*"); }, 0},
        {"listen evpre", [&] { return listen(n, sub, "evpre"); }, 0},
        {"listen evpre*", [&] { return listen(n, sub, "evpre*"); }, 0},
        {"listen evpre.x", [&] { return listen(n, sub, "evpre.x"); }, 0},
        {"listen ev*", [&] { return listen(n, sub, "ev*"); }, 6},
        {"listen *", [&] { return listen(n, sub, "*"); }, 6},
        {"listen sendpre", [&] { return listen(n, sub, "sendpre"); }, 6},
        {"send ev.ok", [&] { return send_event(n, "ev.ok"); }, 0},
        {"send sendpre", [&] { return send_event(n, "sendpre"); }, 0},
        {"send sendpre.x", [&] { return send_event(n, "sendpre.x"); }, 0},
        {"send evpre.x", [&] { return send_event(n, "evpre.x"); }, 6},
        {"send ev.no", [&] { return send_event(n, "ev.no"); }, 6},
        {"send ubus.x", [&] { return send_event(n, "ubus.x"); }, 6},
        {"monitor add", [&] { return call(n, 3, "add"); }, 6},
        {"ACL query", [&] { return call(n, 2, "query"); }, 0},
    };
    for (const auto& r : requests)
        EXPECT_EQ(r.request(), r.status) << r.what;
}

TEST_F(Acl, ListingsShowOnlyCallableMethods) {
    write("example.json", example_rules);
    // Method names are never patterns.
    write("methods.json", R"({"user": "nobody", "access": {"other": {"methods": ["ech*"]}}})");
    start();
    bus_client root(socket_);
    for (const auto& [path, methods] : std::map<std::string, std::vector<std::string>>{
             {"aclobj", {"echo", "other", "empty"}},
             {"pre", {"echo"}},
             {"pre.x", {"echo", "x"}},
             {"other", {"echo"}},
             {"tagonly", {"echo"}},
             {"zeroobj", {}},
         })
        ASSERT_NE(root.add_object(path, signature(methods)), 0u) << path;
    std::unique_ptr<bus_client> nobody = connect_as(nobody_);
    ASSERT_TRUE(nobody);

    using listing = std::vector<std::pair<std::string, std::string>>; // path, signature
    auto listed = [&](const std::optional<std::string>& path, int* status) {
        std::vector<frame> data;
        *status = nobody->lookup(path, &data);
        listing out;
        for (const frame& f : data)
            out.emplace_back(f.str(UBUS_ATTR_OBJPATH), to_hex(f.whole(UBUS_ATTR_SIGNATURE)));
        return out;
    };
    auto entry = [](const char* path, const std::vector<std::string>& methods) {
        return std::pair{std::string(path), to_hex(signature(methods))};
    };
    const struct {
        std::optional<std::string> path;
        int status;
        listing shown;
    } lookups[] = {
        {std::nullopt,
         0,
         {entry("aclobj", {"echo", "empty"}), entry("pre.x", {"echo", "x"}), entry("zeroobj", {})}},
        {"aclobj", 0, {entry("aclobj", {"echo", "empty"})}},
        {"other", 0, {}}, // found, not shown
        {"oth*", 0, {}},
        {"zz*", 4, {}},
        {"pre*", 0, {entry("pre.x", {"echo", "x"})}},
    };
    for (const auto& l : lookups) {
        int status = -1;
        EXPECT_EQ(listed(l.path, &status), l.shown) << l.path.value_or("(all)");
        EXPECT_EQ(status, l.status) << l.path.value_or("(all)");
    }
}

TEST_F(Acl, GroupRulesAndUnknownNames) {
    // Each lookup may overwrite what the previous one returned.
    struct passwd* pw = getpwnam("daemon");
    const std::optional<std::pair<uid_t, gid_t>> daemon_ids =
        pw ? std::optional{std::pair{pw->pw_uid, pw->pw_gid}} : std::nullopt;
    struct group* gr = getgrnam("games");
    const std::optional<gid_t> games = gr ? std::optional{gr->gr_gid} : std::nullopt;
    if (!daemon_ids || !games || getgrnam("no-such-group"))
        GTEST_SKIP() << "needs the account 'daemon', the group 'games' and no 'no-such-group'";
    const auto [d, dg] = *daemon_ids;
    const gid_t g = *games;
    write("games.json",
          R"({"group": "games", "access": {"grpobj": {"methods": ["echo"]}}, "listen": ["*"]})");
    // With both names only the user counts.
    write("both.json", R"({"user": "nobody", "group": "games", "publish": ["byuser*"]})");
    // An unknown group stands for gid 0.
    write("unknown.json", R"({"group": "no-such-group", "publish": ["gid0*"]})");
    start();
    bus_client root(socket_);
    ASSERT_NE(root.add_object("grpobj", signature({"echo", "other"})), 0u);
    const uint32_t root_anon = root.add_anonymous();

    const struct {
        const char* who;
        account a;
        int listen, byuser, gid0, subscribe_root_anon;
        bool sees_grpobj;
    } cases[] = {
        {"games as supplementary group", {d, dg, {g}}, 0, 2, 2, 4, true},
        {"games as primary group", {d, g, {}}, 0, 2, 2, 4, true},
        {"no games", {d, dg, {}}, 6, 2, 2, 4, false},
        {"nobody in games", {nobody_.uid, nobody_.gid, {g}}, 0, 0, 2, 4, true},
        // Root's anonymous objects may be watched by members of root's primary group.
        {"primary group 0", {d, 0, {}}, 6, 2, 0, 0, false},
        {"supplementary group 0", {d, dg, {0}}, 6, 2, 0, 4, false},
    };
    int n = 0;
    for (const auto& c : cases) {
        std::unique_ptr<bus_client> client = connect_as(c.a);
        ASSERT_TRUE(client) << c.who;
        const uint32_t anon = client->add_anonymous();
        const std::string suffix = "." + std::to_string(n++); // paths of their own
        EXPECT_EQ(listen(*client, anon, "*"), c.listen) << c.who;
        EXPECT_EQ(publish(*client, "byuser" + suffix), c.byuser) << c.who;
        EXPECT_EQ(publish(*client, "gid0" + suffix), c.gid0) << c.who;
        EXPECT_EQ(subscribe(*client, anon, root_anon), c.subscribe_root_anon) << c.who;
        EXPECT_EQ(client->list(std::string("grpobj")), c.sees_grpobj ? Paths{"grpobj"} : Paths{})
            << c.who;
    }
}

TEST_F(Acl, WhichFilesCount) {
    const std::string nogroup = name_of_group(nobody_.gid);
    auto grant = [](const std::string& path) {
        return R"({"user": "nobody", "publish": [")" + path + R"("]})";
    };
    auto nested = [&](int containers) { // the top object included
        return R"({"user": "nobody", "publish": ["depth)" + std::to_string(containers) +
               R"("], "x": )" + std::string(containers - 1, '[') +
               std::string(containers - 1, ']') + "}";
    };
    const struct {
        const char* name;
        std::string text;
        mode_t mode;
        uid_t uid;
        gid_t gid;
    } files[] = {
        {"good.json", grant("good"), 0644, 0, 0},
        {"private.json", grant("private"), 0600, 0, 0},
        {"userexec.json", grant("userexec"), 0744, 0, 0},
        {"groupexec.json", grant("groupexec"), 0654, 0, 0},
        {"owner.json", grant("owner"), 0644, nobody_.uid, 0},
        {"group.json", grant("group"), 0644, 0, nobody_.gid},
        {"groupwrite.json", grant("groupwrite"), 0664, 0, 0},
        {"otherwrite.json", grant("otherwrite"), 0646, 0, 0},
        {"otherexec.json", grant("otherexec"), 0645, 0, 0},
        {"rules.txt", grant("txt"), 0644, 0, 0},
        {".hidden.json", grant("hidden"), 0644, 0, 0},
        {"unterminated.json", R"({"user": "nobody", "publish": ["unterminated"])", 0644, 0, 0},
        {"array.json", "[" + grant("array") + "]", 0644, 0, 0},
        {"anyone.json", R"({"publish": ["anyone"]})", 0644, 0, 0},
        // Keys of a wrong type are absent: here the group rule applies.
        {"wrongtype.json",
         R"({"user": 5, "group": ")" + nogroup + R"(", "publish": ["wrongtype"]})", 0644, 0, 0},
        {"notarray.json", R"({"user": "nobody", "publish": "notarray"})", 0644, 0, 0},
        {"elements.json", R"({"user": "nobody", "publish": [1, "", null, "elements"]})", 0644, 0,
         0},
        // A repeated key keeps its last value.
        {"repeated.json", R"({"user": "nobody", "publish": ["first"], "publish": ["last"]})", 0644,
         0, 0},
        {"escaped.json", R"({"user": "\u006eobody", "publish": ["esc\u0061ped"]})", 0644, 0, 0},
        {"depth31.json", nested(31), 0644, 0, 0},
        {"depth32.json", nested(32), 0644, 0, 0},
    };
    for (const auto& f : files)
        write(f.name, f.text, f.mode, f.uid, f.gid);
    // A link is followed; a FIFO must not hold the daemon up.
    write("../target", grant("linked"));
    ASSERT_EQ(symlink("../target", (acl_dir_ + "/link.json").c_str()), 0);
    ASSERT_EQ(mkfifo((acl_dir_ + "/fifo.json").c_str(), 0644), 0);
    start();

    std::unique_ptr<bus_client> nobody = connect_as(nobody_);
    ASSERT_TRUE(nobody);
    const std::pair<const char*, int> publishes[] = {
        {"good", 0},     {"private", 0},      {"userexec", 0},   {"groupexec", 0}, {"owner", 2},
        {"group", 2},    {"groupwrite", 2},   {"otherwrite", 2}, {"otherexec", 2}, {"txt", 2},
        {"hidden", 2},   {"unterminated", 2}, {"array", 2},      {"anyone", 2},    {"wrongtype", 0},
        {"notarray", 2}, {"elements", 0},     {"first", 2},      {"last", 0},      {"escaped", 0},
        {"depth31", 0},  {"depth32", 2},      {"linked", 0},
    };
    for (const auto& [path, status] : publishes)
        EXPECT_EQ(publish(*nobody, path), status) << path;
}

TEST_F(Acl, HangupReloads) {
    write("a.json", R"({"user": "nobody", "publish": ["one.*"]})");
    start();
    bus_client root(socket_);
    const uint32_t listener = root.add_anonymous();
    ASSERT_EQ(listen(root, listener, "ubus.acl.sequence"), 0);
    std::unique_ptr<bus_client> nobody = connect_as(nobody_);
    ASSERT_TRUE(nobody);
    ASSERT_EQ(publish(*nobody, "one.a"), 0);
    const std::string away = dir_ + "/away";

    // Each step changes the directory, then the daemon gets SIGHUP: a load that finds a
    // *.json name replaces every rule and is announced; one that finds none keeps them.
    const struct {
        const char* what;
        std::function<void()> change;
        uint32_t seq; // announced, or 0: none
        std::vector<std::pair<const char*, int>> publishes;
    } steps[] = {
        {"new rules",
         [&] { write("a.json", R"({"user": "nobody", "publish": ["two.*"]})"); },
         2,
         {{"one.b", 2}, {"two.a", 0}}},
        {"no *.json",
         [&] { std::rename((acl_dir_ + "/a.json").c_str(), (acl_dir_ + "/a.txt").c_str()); },
         0,
         {{"two.b", 0}}},
        {"no directory", [&] { std::rename(acl_dir_.c_str(), away.c_str()); }, 0, {{"two.c", 0}}},
        {"only an unusable file",
         [&] {
             std::rename(away.c_str(), acl_dir_.c_str());
             write("b.json", R"({"user": "nobody", "publish": ["*"]})", 0664);
         },
         3,
         {{"two.d", 2}, {"three", 2}}},
    };
    uint32_t seq = 1;
    for (const auto& s : steps) {
        s.change();
        daemon_->signal(SIGHUP);
        if (s.seq) {
            std::optional<frame> ev = root.recv();
            ASSERT_TRUE(ev) << s.what;
            EXPECT_EQ(ev->u32(UBUS_ATTR_OBJID), listener);
            EXPECT_EQ(ev->str(UBUS_ATTR_METHOD), "ubus.acl.sequence");
            EXPECT_EQ(to_hex(ev->payload(UBUS_ATTR_DATA)), to_hex(field_u32("sequence", s.seq)));
            seq = s.seq;
        } else {
            EXPECT_FALSE(root.recv(300)) << s.what;
        }
        EXPECT_EQ(query(root), query_answer(seq, {})) << s.what;
        for (const auto& [path, status] : s.publishes)
            EXPECT_EQ(publish(*nobody, path), status) << s.what << ": " << path;
    }
    // What was allowed stays: objects are not checked again.
    EXPECT_EQ(root.list(std::string("one.a")), Paths{"one.a"});
}

TEST_F(Acl, QueryListsTheAclTablesForTheCallersObjects) {
    write("example.json", example_rules);
    // Listed whoever the entry is for; an entry without "acl" is not.
    write("other.json", R"({"group": "no-such-group", "access": {"priv*": {"acl": {"g": true}},
        "privobj": {"methods": ["x"]}}})");
    start();
    std::unique_ptr<bus_client> nobody = connect_as(nobody_);
    ASSERT_TRUE(nobody);
    EXPECT_EQ(query(*nobody), query_answer(1, {}));
    ASSERT_EQ(publish(*nobody, "pubok"), 0);
    ASSERT_EQ(publish(*nobody, "privobj"), 0);
    nobody->add_anonymous();
    EXPECT_EQ(
        query(*nobody),
        query_answer(1, table("", field_str("obj", "privobj") + field_str("user", "nobody") +
                                      table("acl", field_str("foo", "bar") + field_u32("n", 1))) +
                            table("", field_str("obj", "privobj") +
                                          field_str("group", "no-such-group") +
                                          table("acl", field(BLOBMSG_TYPE_INT8, "g", {1})))));
    bus_client root(socket_);
    ASSERT_NE(root.add_object("unlisted", signature({"m"})), 0u);
    EXPECT_EQ(query(root), query_answer(1, {}));
}

} // namespace
