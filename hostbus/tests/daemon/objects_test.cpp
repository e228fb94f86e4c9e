// Objects and listings: path order, wildcards, statuses, untyped objects, ownership.
#include "wire.h"

using namespace wire;
using Paths = std::vector<std::string>;

namespace {

class Objects : public DaemonTest {};

const Paths sorted_paths = {"A",   "_x",  "a",  "a b", "a.b",     "a.b.c",
                            "a.c", "a/b", "ab", "b",   "\xc3\xbc"};

void add_shuffled(Client& c) {
    for (const char* p :
         {"b", "a.c", "\xc3\xbc", "a b", "_x", "a/b", "A", "a.b.c", "ab", "a", "a.b"})
        ASSERT_NE(c.add_object(p, signature({"m"})), 0u) << p;
}

TEST_F(Objects, ListingIsInByteOrder) {
    Client c(socket());
    add_shuffled(c);
    int status = -1;
    EXPECT_EQ(c.list(std::nullopt, &status), sorted_paths);
    EXPECT_EQ(status, 0);
}

TEST_F(Objects, TrailingStarIsAPlainPrefix) {
    Client c(socket());
    add_shuffled(c);
    EXPECT_EQ(c.list(std::string("a*")), (Paths{"a", "a b", "a.b", "a.b.c", "a.c", "a/b", "ab"}));
    EXPECT_EQ(c.list(std::string("a.b*")), (Paths{"a.b", "a.b.c"}));
    EXPECT_EQ(c.list(std::string("*")), sorted_paths);
    int status = -1;
    EXPECT_TRUE(c.list(std::string("zz*"), &status).empty());
    EXPECT_EQ(status, 4);
}

TEST_F(Objects, StarElsewhereIsLiteral) {
    Client c(socket());
    add_shuffled(c);
    int status = -1;
    EXPECT_TRUE(c.list(std::string("a*b"), &status).empty());
    EXPECT_EQ(status, 4);
    ASSERT_NE(c.add_object("a*b", signature({"m"})), 0u);
    EXPECT_EQ(c.list(std::string("a*b")), Paths{"a*b"});
    ASSERT_NE(c.add_object("x*", signature({"m"})), 0u);
    // Only the last star is special: "x**" asks for paths starting with "x*".
    EXPECT_EQ(c.list(std::string("x**")), Paths{"x*"});
}

TEST_F(Objects, ExactLookupStatuses) {
    Client c(socket());
    add_shuffled(c);
    int status = -1;
    EXPECT_EQ(c.list(std::string("a.b"), &status), Paths{"a.b"});
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(c.list(std::string("A.B"), &status).empty());
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(c.list(std::string(""), &status).empty());
    EXPECT_EQ(status, 2);
}

TEST_F(Objects, EmptyBusStatuses) {
    Client c(socket());
    int status = -1;
    EXPECT_TRUE(c.list(std::nullopt, &status).empty());
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(c.list(std::string("*"), &status).empty());
    EXPECT_EQ(status, 4);
}

TEST_F(Objects, TruncatedPathAttributeListsEverything) {
    Client c(socket());
    add_shuffled(c);
    // OBJPATH announces 16 bytes but the message ends after 8 of them.
    Bytes truncated = hex("00 04 00 05 00 00 00 00 | 00 00 00 0c | 02 00 00 10 61 62 63 00");
    std::vector<Msg> data;
    EXPECT_EQ(c.request(truncated, &data), 0);
    EXPECT_EQ(data.size(), sorted_paths.size());
}

TEST_F(Objects, DuplicatePathIsInvalidArgument) {
    Client a(socket()), b(socket());
    ASSERT_NE(a.add_object("dup", signature({"m"})), 0u);
    int status = -1;
    EXPECT_EQ(a.add_object("dup", signature({"m"}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(b.add_object("dup", signature({}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);
    EXPECT_NE(b.add_object("Dup", signature({}), nullptr, &status), 0u);
    EXPECT_NE(b.add_object("dup ", signature({}), nullptr, &status), 0u);
}

TEST_F(Objects, EmptySignatureMakesATypeWithoutMethods) {
    Client c(socket());
    uint32_t type = 0;
    ASSERT_NE(c.add_object("empty", attr(A_SIGNATURE, {}), &type), 0u);
    EXPECT_NE(type, 0u);
    std::vector<Msg> data;
    ASSERT_EQ(c.lookup(std::string("empty"), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(to_hex(data[0].attrs[A_SIGNATURE]), "06 00 00 04");
}

TEST_F(Objects, RejectedSignatureLeavesTheObjectUntyped) {
    Client c(socket());
    // One method without a name spoils the whole signature.
    Bytes bad = attr(A_SIGNATURE, cat({table("ok", {}), table("", {})}));
    uint32_t type = 123;
    uint32_t id = c.add_object("untyped", bad, &type);
    ASSERT_NE(id, 0u);
    EXPECT_EQ(type, 0u);
    // A non-blobmsg entry is rejected as well.
    ASSERT_NE(c.add_object("untyped2", attr(A_SIGNATURE, attr_u32(3, 1)), &type), 0u);
    EXPECT_EQ(type, 0u);
    // So is an unknown type id; and no type at all.
    ASSERT_NE(c.add_object("untyped3", attr_u32(A_OBJTYPE, 0x7777777), &type), 0u);
    EXPECT_EQ(type, 0u);
    ASSERT_NE(c.add_object("untyped4", Bytes{}, &type), 0u);
    EXPECT_EQ(type, 0u);

    std::vector<Msg> data;
    EXPECT_EQ(c.lookup(std::string("untyped"), &data), 0);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(c.lookup(std::string("untyped*"), &data), 0);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(c.lookup(std::nullopt, &data), 0);
    EXPECT_TRUE(data.empty());
    // The path stays taken.
    int status = -1;
    EXPECT_EQ(c.add_object("untyped", signature({"m"}), nullptr, &status), 0u);
    EXPECT_EQ(status, 2);

    // And the object still takes calls by id.
    Client caller(socket());
    caller.send(msg(INVOKE, 3, id, {attr_u32(A_OBJID, id), attr_str(A_METHOD, "x")}));
    std::optional<Msg> invoke = c.recv();
    ASSERT_TRUE(invoke);
    EXPECT_EQ(invoke->type, INVOKE);
    EXPECT_EQ(invoke->peer, caller.id);
}

TEST_F(Objects, SignatureIsHandedOutAsRegistered) {
    Client c(socket());
    Bytes sig =
        attr(A_SIGNATURE, cat({table("a", {field_u32("x", 5), table("inner", {field_u32("", 1)})}),
                               table("b", {field_str("s", "odd but kept")})}));
    ASSERT_NE(c.add_object("sig", sig), 0u);
    std::vector<Msg> data;
    ASSERT_EQ(c.lookup(std::string("sig"), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(to_hex(data[0].attrs[A_SIGNATURE]), to_hex(sig));
    EXPECT_EQ(data[0].attr_list.size(), 4u);
}

TEST_F(Objects, RemoveStatuses) {
    Client owner(socket()), other(socket());
    uint32_t id = owner.add_object("mine", signature({"m"}));
    ASSERT_NE(id, 0u);
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 1, 0, {attr_u32(A_OBJID, id)})), 6);
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 2, 0, {})), 2);
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 3, 0, {attr_u32(A_OBJID, 0)})), 4);
    EXPECT_EQ(other.request(msg(REMOVE_OBJECT, 4, 0, {attr(A_OBJID, {1, 2})})), 2);
    EXPECT_EQ(owner.request(msg(REMOVE_OBJECT, 5, 0, {attr_u32(A_OBJID, id)})), 0);
    EXPECT_EQ(owner.request(msg(REMOVE_OBJECT, 6, 0, {attr_u32(A_OBJID, id)})), 4);
    int status = -1;
    owner.list(std::string("mine"), &status);
    EXPECT_EQ(status, 4);
    // The path is free again.
    EXPECT_NE(other.add_object("mine", signature({})), 0u);
}

TEST_F(Objects, DisconnectRemovesTheClientsObjects) {
    Client watcher(socket());
    {
        Client owner(socket());
        for (int i = 0; i < 10; i++)
            ASSERT_NE(owner.add_object("gone." + std::to_string(i), signature({"m"})), 0u);
        EXPECT_EQ(watcher.list(std::string("gone.*")).size(), 10u);
    }
    int status = 0;
    for (int i = 0; i < 500 && status != 4; i++) {
        watcher.list(std::string("gone.*"), &status);
        if (status != 4)
            usleep(10000);
    }
    EXPECT_EQ(status, 4);
}

TEST_F(Objects, ThousandObjects) {
    Client owner(socket()), reader(socket());
    Paths expected;
    for (int i = 0; i < 1000; i++) {
        char path[32];
        snprintf(path, sizeof(path), "bulk.%04d", i);
        expected.push_back(path);
    }
    // Added in reverse: the listing still comes sorted.
    for (auto it = expected.rbegin(); it != expected.rend(); ++it)
        ASSERT_NE(owner.add_object(*it, demo_signature()), 0u);
    int status = -1;
    EXPECT_EQ(reader.list(std::nullopt, &status), expected);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(reader.list(std::string("bulk.05*")).size(), 100u);
    EXPECT_EQ(reader.list(std::string("bulk.0999")), Paths{"bulk.0999"});
    std::vector<Msg> data;
    ASSERT_EQ(reader.lookup(std::string("bulk.0500"), &data), 0);
    ASSERT_EQ(data.size(), 1u);
    uint32_t id = data[0].u32(A_OBJID);
    EXPECT_EQ(owner.request(msg(REMOVE_OBJECT, 7, 0, {attr_u32(A_OBJID, id)})), 0);
    EXPECT_EQ(reader.list(std::nullopt).size(), 999u);
}

} // namespace
