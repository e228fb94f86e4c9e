// Objects and listings: path order, wildcards, statuses, signatures, untyped objects, ownership.
#include "daemon_test.h"

namespace {

class Objects : public DaemonTest {};

TEST_F(Objects, LookupOrderWildcardsAndStatuses) {
    bus_client c(socket());
    int status = -1;
    EXPECT_TRUE(c.list(std::nullopt, &status).empty());
    EXPECT_EQ(status, 0) << "listing an empty bus";
    EXPECT_TRUE(c.list(std::string("*"), &status).empty());
    EXPECT_EQ(status, 4);

    for (const char* p :
         {"b", "a.c", "\xc3\xbc", "x*", "a b", "_x", "a/b", "A", "a.b.c", "a*b", "ab", "a", "a.b"})
        ASSERT_NE(c.add_object(p, signature({"m"})), 0u) << p;
    const Paths all = {"A",   "_x",  "a",  "a b", "a*b", "a.b",     "a.b.c",
                       "a.c", "a/b", "ab", "b",   "x*",  "\xc3\xbc"};
    const struct {
        std::optional<std::string> path;
        Paths found;
        int status;
    } cases[] = {
        {std::nullopt, all, 0},
        {"*", all, 0},
        {"a*", {"a", "a b", "a*b", "a.b", "a.b.c", "a.c", "a/b", "ab"}, 0}, // a plain prefix
        {"a.b*", {"a.b", "a.b.c"}, 0},
        {"zz*", {}, 4},
        {"a*c", {}, 4}, // a star elsewhere is literal
        {"a*b", {"a*b"}, 0},
        {"x**", {"x*"}, 0}, // only the last star is special
        {"a.b", {"a.b"}, 0},
        {"A.B", {}, 4},
        {"", {}, 2},
    };
    for (const auto& k : cases) {
        EXPECT_EQ(c.list(k.path, &status), k.found) << k.path.value_or("(all)");
        EXPECT_EQ(status, k.status) << k.path.value_or("(all)");
    }
    // OBJPATH announces 16 bytes but the message ends after 8: as if there were no path.
    std::vector<frame> data;
    EXPECT_EQ(c.request(from_hex("00 04 00 05 00 00 00 00 | 00 00 00 0c | 02 00 00 10 61 62 63 00"),
                        &data),
              0);
    EXPECT_EQ(data.size(), all.size());
}

TEST_F(Objects, UntypedObjectsAreUnlistedButHoldTheirPathAndTakeCalls) {
    bus_client c(socket()), caller(socket());
    const bytes untyped[] = {
        attr(UBUS_ATTR_SIGNATURE, table("ok", {}) + table("", {})), // a method without a name
        attr(UBUS_ATTR_SIGNATURE, attr_u32(3, 1)),                  // not a blobmsg entry
        attr_u32(UBUS_ATTR_OBJTYPE, 0x7777777),                     // unknown type id
        bytes{},                                                    // no type at all
    };
    uint32_t first = 0;
    for (size_t i = 0; i < 4; i++) {
        uint32_t type = 123;
        uint32_t id = c.add_object("untyped" + std::to_string(i), untyped[i], &type);
        ASSERT_NE(id, 0u) << i;
        EXPECT_EQ(type, 0u) << i;
        first = first ? first : id;
    }
    std::vector<frame> data;
    EXPECT_EQ(c.lookup(std::string("untyped0"), &data), 0);
    EXPECT_EQ(c.lookup(std::string("untyped*"), &data), 0);
    EXPECT_EQ(c.lookup(std::nullopt, &data), 0);
    EXPECT_TRUE(data.empty());

    caller.send(invoke(3, first, first, "x"));
    std::optional<frame> fwd = c.recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->type, UBUS_MSG_INVOKE);
    EXPECT_EQ(fwd->peer, caller.id);
}

TEST_F(Objects, PathsAreOwnedUntilRemoved) {
    bus_client owner(socket()), other(socket());
    uint32_t id = owner.add_object("mine", signature({"m"}));
    ASSERT_NE(id, 0u);
    int status = -1;
    for (bus_client* c : {&owner, &other}) {
        EXPECT_EQ(c->add_object("mine", signature({}), nullptr, &status), 0u);
        EXPECT_EQ(status, UBUS_STATUS_INVALID_ARGUMENT);
    }
    EXPECT_NE(other.add_object("Mine", signature({})), 0u) << "paths are case-sensitive";
    EXPECT_NE(other.add_object("mine ", signature({})), 0u);

    EXPECT_EQ(other.remove(id), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(other.request(msg(UBUS_MSG_REMOVE_OBJECT, 2, 0)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(other.request(msg(UBUS_MSG_REMOVE_OBJECT, 4, 0, attr(UBUS_ATTR_OBJID, {1, 2}))),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(other.remove(0), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(owner.remove(id), 0);
    EXPECT_EQ(owner.remove(id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(owner.lookup(std::string("mine")), UBUS_STATUS_NOT_FOUND);
    EXPECT_NE(other.add_object("mine", signature({})), 0u) << "the path is free again";
}

} // namespace
