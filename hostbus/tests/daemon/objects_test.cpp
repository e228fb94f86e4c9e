// Objects and listings: path order, wildcards, statuses, signatures, untyped objects, ownership.
#include "wire.h"

using namespace wire;

namespace {

class Objects : public DaemonTest {};

TEST_F(Objects, LookupOrderWildcardsAndStatuses) {
    Client c(socket());
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
    std::vector<Msg> data;
    EXPECT_EQ(
        c.request(hex("00 04 00 05 00 00 00 00 | 00 00 00 0c | 02 00 00 10 61 62 63 00"), &data),
        0);
    EXPECT_EQ(data.size(), all.size());
}

TEST_F(Objects, DuplicatePathIsInvalidArgument) {
    Client a(socket()), b(socket());
    ASSERT_NE(a.add_object("dup", signature({"m"})), 0u);
    int status = -1;
    EXPECT_EQ(a.add_object("dup", signature({"m"}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(b.add_object("dup", signature({}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    EXPECT_NE(b.add_object("Dup", signature({})), 0u);
    EXPECT_NE(b.add_object("dup ", signature({})), 0u);
}

TEST_F(Objects, SignaturesAreHandedOutAsRegistered) {
    Client c(socket());
    const Bytes sigs[] = {
        attr(A_SIGNATURE, {}), // a type without methods
        attr(A_SIGNATURE, cat({table("a", {field_u32("x", 5), table("in", {field_u32("", 1)})}),
                               table("b", {field_str("s", "odd but kept")})})),
    };
    for (const Bytes& sig : sigs) {
        uint32_t type = 0;
        ASSERT_NE(c.add_object("sig" + std::to_string(sig.size()), sig, &type), 0u);
        EXPECT_NE(type, 0u);
        std::vector<Msg> data;
        ASSERT_EQ(c.lookup("sig" + std::to_string(sig.size()), &data), 0);
        ASSERT_EQ(data.size(), 1u);
        EXPECT_EQ(to_hex(data[0].attrs[A_SIGNATURE]), to_hex(sig));
        EXPECT_EQ(data[0].attr_list.size(), 4u);
    }
}

TEST_F(Objects, UntypedObjectsAreUnlistedButHoldTheirPathAndTakeCalls) {
    Client c(socket()), caller(socket());
    const Bytes untyped[] = {
        attr(A_SIGNATURE, cat({table("ok", {}), table("", {})})), // a method without a name
        attr(A_SIGNATURE, attr_u32(3, 1)),                        // not a blobmsg entry
        attr_u32(A_OBJTYPE, 0x7777777),                           // unknown type id
        Bytes{},                                                  // no type at all
    };
    uint32_t first = 0;
    for (size_t i = 0; i < 4; i++) {
        uint32_t type = 123;
        uint32_t id = c.add_object("untyped" + std::to_string(i), untyped[i], &type);
        ASSERT_NE(id, 0u) << i;
        EXPECT_EQ(type, 0u) << i;
        first = first ? first : id;
    }
    std::vector<Msg> data;
    EXPECT_EQ(c.lookup(std::string("untyped0"), &data), 0);
    EXPECT_EQ(c.lookup(std::string("untyped*"), &data), 0);
    EXPECT_EQ(c.lookup(std::nullopt, &data), 0);
    EXPECT_TRUE(data.empty());
    int status = -1;
    EXPECT_EQ(c.add_object("untyped0", signature({"m"}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);

    caller.send(invoke(3, first, "x"));
    std::optional<Msg> fwd = c.recv();
    ASSERT_TRUE(fwd);
    EXPECT_EQ(fwd->type, INVOKE);
    EXPECT_EQ(fwd->peer, caller.id);
}

TEST_F(Objects, RemoveStatuses) {
    Client owner(socket()), other(socket());
    uint32_t id = owner.add_object("mine", signature({"m"}));
    ASSERT_NE(id, 0u);
    EXPECT_EQ(other.remove(id), 6) << "not the owner";
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 2, 0, {})), 2);
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 4, 0, {attr(A_OBJID, {1, 2})})), 2);
    EXPECT_EQ(other.remove(0), 4);
    EXPECT_EQ(owner.remove(id), 0);
    EXPECT_EQ(owner.remove(id), 4);
    EXPECT_EQ(owner.lookup(std::string("mine")), 4);
    EXPECT_NE(other.add_object("mine", signature({})), 0u) << "the path is free again";
}

} // namespace
