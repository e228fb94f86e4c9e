// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <orvix_testing/thrown.h>

#include <gtest/gtest.h>

#include <orvix_testing/blob.h>

#include <orvix/blob/utils.h>

#include <map>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <vector>

namespace {

using orvix_testing::bytes;
using orvix_testing::from_hex;
using message = orvix_testing::message_blob;
using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;
using orvix::blob::utils::to_array;
using orvix::blob::utils::to_attr;
using orvix::blob::utils::to_table;
using orvix::blob::utils::to_unspec;
using policy = std::multimap<std::string, std::type_index>;

const std::string table_bad_attr = "orvix::blob::utils::to_table: Bad attr";
const std::string array_bad_attr = "orvix::blob::utils::to_array: Bad attr";
const std::string parse_failed = "orvix::blob::utils::to_table: Failed to parse message";

// Fields from the reference dumps of libubox.
const std::string int32_a_1 = "85 00 00 0c 00 01 61 00 00 00 00 01";
const std::string string_b_x = "83 00 00 0a 00 01 62 00 78 00 00 00";
const std::string bool_flag = "87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00";
const std::string unnamed_7 = "05 00 00 08 00 00 00 07";

// Decoding, and refusing, with and without a policy: the three ways a message is read.
void expect_refused(message& msg, const std::string& table_text, const std::string& array_text,
                    const std::string& body) {
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_table(msg.head()); }),
              table_text)
        << body;
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_array(msg.head()); }),
              array_text)
        << body;
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] {
                  to_table(msg.head(), policy{{"a", typeid(unsigned int)}});
              }),
              parse_failed)
        << body;
}

TEST(blob_utils, null_gives_empty_containers) {
    EXPECT_TRUE(to_table(nullptr).empty());
    EXPECT_TRUE(to_array(nullptr).empty());
    EXPECT_TRUE(to_unspec(nullptr).empty());
}

TEST(blob_utils, fields_decode_in_wire_order_as_the_encoder_never_writes_them) {
    // "t" holds "x" before "in"; arrays decode directly too.
    message nested("82 00 00 2c 00 01 74 00 85 00 00 0c 00 01 78 00 00 00 00 05 "
                   "82 00 00 18 00 02 69 6e 00 00 00 00 83 00 00 0b 00 01 73 00 68 69 00 00");
    const table decoded = to_table(nested.head());
    const table& outer = decoded.find("t")->second.get<table>();
    EXPECT_EQ(outer.find("x")->second.get<unsigned int>(), 5u);
    EXPECT_EQ(outer.find("in")->second.get<table>().find("s")->second.get<std::string>(), "hi");

    message list("81 00 00 20 00 01 6c 00 " + int32_a_1 + " 85 00 00 0c 00 00 00 00 00 00 00 02");
    const array members = to_array(list.first());
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members.back().get<unsigned int>(), 2u);

    // A double may carry more than eight bytes; a string ends at its first NUL.
    message loose("88 00 00 14 00 01 64 00 c0 00 00 00 00 00 00 00 ff ff ff ff "
                  "83 00 00 0e 00 01 73 00 61 62 00 63 64 00 00 00");
    const table fields = to_table(loose.head());
    EXPECT_EQ(fields.find("d")->second.get<double>(), -2.0);
    EXPECT_EQ(fields.find("s")->second.get<std::string>(), "ab");
}

TEST(blob_utils, int8_is_unsigned_char_unless_a_bool_is_asked_for_at_the_top) {
    message msg(bool_flag);
    EXPECT_EQ(to_table(msg.head()).find("flag")->second.type(), typeid(unsigned char));
    const table as_bool = to_table(msg.head(), policy{{"flag", typeid(bool)}});
    EXPECT_TRUE(as_bool.find("flag")->second.get<bool>());
    const table as_byte = to_table(msg.head(), policy{{"flag", typeid(unsigned char)}});
    EXPECT_EQ(as_byte.find("flag")->second.get<unsigned char>(), 1);

    message two("87 00 00 09 00 01 62 00 02 00 00 00");
    EXPECT_TRUE(to_attr(two.first(), true).get<bool>());
    EXPECT_EQ(to_attr(two.first(), false).get<unsigned char>(), 2);
    message zero("87 00 00 09 00 01 62 00 00 00 00 00");
    EXPECT_FALSE(to_attr(zero.first(), true).get<bool>());
    message other(int32_a_1);
    EXPECT_EQ(to_attr(other.first(), true).type(), typeid(unsigned int));
    message inside("82 00 00 14 00 01 74 00 87 00 00 09 00 01 62 00 01 00 00 00");
    EXPECT_EQ(to_attr(inside.first(), true).get<table>().find("b")->second.type(),
              typeid(unsigned char));
}

TEST(blob_utils, unspec_gives_the_bytes_after_the_name_and_a_head_its_whole_payload) {
    const std::string body = "80 00 00 0b 00 01 75 00 01 00 03 00 80 00 00 08 00 01 76 00";
    message msg(body);
    const table fields = to_table(msg.head());
    EXPECT_EQ(fields.find("u")->second.get<bytes>(), (bytes{1, 0, 3}));
    EXPECT_TRUE(fields.find("v")->second.get<bytes>().empty());
    EXPECT_EQ(to_unspec(msg.first()), (bytes{1, 0, 3}));
    EXPECT_EQ(to_unspec(msg.head()), from_hex(body));
}

TEST(blob_utils, unnamed_fields_are_left_out_of_tables_but_not_arrays) {
    message msg(unnamed_7 + " " + int32_a_1);
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.size(), 1u);
    EXPECT_EQ(fields.find("a")->second.get<unsigned int>(), 1u);
    const array members = to_array(msg.head());
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members.front().get<unsigned int>(), 7u);
    EXPECT_TRUE(to_table(msg.head(), policy{{"", typeid(unsigned int)}}).empty());
}

TEST(blob_utils, a_truncated_last_field_ends_the_walk) {
    for (const std::string tail : {"85 00 00 40 00 01 62 00", "00 00 00 00"}) {
        message msg(int32_a_1 + " " + tail);
        EXPECT_EQ(to_table(msg.head()).size(), 1u) << tail;
        EXPECT_EQ(to_array(msg.head()).size(), 1u) << tail;
    }
}

TEST(blob_utils, malformed_fields_are_refused) {
    const std::vector<std::string> malformed = {
        "85 00 00 10 00 01 61 00 00 00 00 01 00 00 00 02",  // INT32 of 8 bytes
        "86 00 00 0c 00 01 61 00 00 00 00 01",              // INT16 of 4 bytes
        "87 00 00 0a 00 01 61 00 01 02 00 00",              // INT8 of 2 bytes
        "84 00 00 0c 00 01 61 00 00 00 00 01",              // INT64 of 4 bytes
        "88 00 00 0c 00 01 61 00 00 00 00 01",              // DOUBLE of 4 bytes
        "83 00 00 0b 00 01 61 00 78 79 7a 00",              // STRING without NUL
        "83 00 00 08 00 01 61 00",                          // STRING of no bytes
        "85 00 00 0c 00 01 61 62 00 00 00 01",              // name without NUL
        "85 00 00 08 00 09 61 62",                          // name longer than the field
        "85 00 00 02",                                      // shorter than a header
        "89 00 00 08 00 01 61 00",                          // type 9
        "ff 00 00 08 00 01 61 00",                          // type 127
        int32_a_1 + " 83 00 00 0b 00 01 61 00 78 79 7a 00", // bad after good
        // Shaped like inputs that made the upstream libraries misbehave in fuzzing.
        "03 00 00 02",
        "03 00 00 03 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5",
        "03 00 00 04",
        "03 00 00 03 00 00",
        "03 00 00 03 ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff "
        "ff ff ff ff ff 03 03",
        "00 00 00 09 02 00 00 02 00 00 00 09 02 00 00 02",
    };
    for (const auto& body : malformed) {
        message msg(body);
        expect_refused(msg, table_bad_attr, array_bad_attr, body);
    }

    // Fuzzed bodies whose fields are all unnamed or cut short: nothing to decode, no refusal.
    for (const std::string body :
         {"d1 00", "36", "01 00 01", "0a 00 00 00 00 41", "00 00 00 0a 02 00 00 02 36 00",
          "ff ff ff ff dd 0a", "01 04 00 00 00 01 00 00 35 25", "0a 0a 0a 0a 00 06"}) {
        message msg(body);
        EXPECT_TRUE(to_table(msg.head()).empty()) << body;
        EXPECT_TRUE(to_array(msg.head()).empty()) << body;
        EXPECT_TRUE(to_table(msg.head(), policy{{"message", typeid(std::string)}}).empty()) << body;
    }
}

TEST(blob_utils, a_malformed_member_deep_inside_names_the_innermost_container) {
    // "t" holds "l", an array holding a table with an INT32 of 2 bytes.
    message in_table("82 00 00 24 00 01 74 00 81 00 00 1c 00 01 6c 00 "
                     "82 00 00 14 00 00 00 00 85 00 00 0a 00 01 62 00 00 01 00 00");
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_table(in_table.head()); }),
              table_bad_attr);
    // "t" holds "l", an array holding an INT32 of 2 bytes.
    message in_array("82 00 00 1c 00 01 74 00 81 00 00 14 00 01 6c 00 "
                     "85 00 00 0a 00 00 00 00 00 01 00 00");
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_table(in_array.head()); }),
              array_bad_attr);
}

TEST(blob_utils, unknown_types_are_refused_with_their_own_texts) {
    message nine("89 00 00 08 00 01 61 00");
    EXPECT_EQ(orvix_testing::what_thrown<std::logic_error>([&] { to_attr(nine.first(), false); }),
              "orvix::blob::utils::to_attr: Unknown type9");
    message twelve("8c 00 00 08 00 01 61 00");
    EXPECT_EQ(orvix_testing::what_thrown<std::logic_error>([&] { to_attr(twelve.first(), true); }),
              "orvix::blob::utils::to_attr: Unknown type12");

    message msg(int32_a_1);
    for (const std::type_index& type :
         {std::type_index(typeid(int)), std::type_index(typeid(signed char)),
          std::type_index(typeid(long)), std::type_index(typeid(float)),
          std::type_index(typeid(const char*)), std::type_index(typeid(attr))}) {
        EXPECT_EQ(orvix_testing::what_thrown<std::logic_error>([&] {
                      to_table(msg.head(), policy{{"a", type}});
                  }),
                  "orvix::blob::utils::to_blobmsg_type: Unknown type")
            << type.name();
    }
}

TEST(blob_utils, a_policy_picks_the_first_field_of_its_name_and_type) {
    message msg(int32_a_1 + " " + string_b_x);
    const struct {
        policy wanted;
        std::size_t found;
    } cases[] = {
        {{{"a", typeid(unsigned int)}, {"c", typeid(std::string)}}, 1},
        {{{"b", typeid(unsigned int)}}, 0},
        {{{"a", typeid(unsigned long long)}}, 0},
        {{{"a", typeid(bool)}}, 0},
        {{{"a", typeid(table)}, {"b", typeid(array)}}, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(to_table(msg.head(), c.wanted).size(), c.found);
    }
    // Unspec takes a field of any type as it is.
    EXPECT_EQ(to_table(msg.head(), policy{{"a", typeid(bytes)}}).find("a")->second.type(),
              typeid(unsigned int));

    message equal("83 00 00 0a 00 01 6b 00 73 00 00 00 "
                  "85 00 00 0c 00 01 6b 00 00 00 00 07 85 00 00 0c 00 01 6b 00 00 00 00 08");
    const table one = to_table(equal.head(), policy{{"k", typeid(unsigned int)}});
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one.find("k")->second.get<unsigned int>(), 7u);
    const table two =
        to_table(equal.head(), policy{{"k", typeid(std::string)}, {"k", typeid(unsigned int)}});
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two.begin()->second.get<std::string>(), "s");
    EXPECT_EQ(std::next(two.begin())->second.get<unsigned int>(), 7u);
}

TEST(blob_utils, libubox_cannot_parse_an_empty_or_missing_message) {
    message empty("");
    for (blob_attr* head : {empty.head(), static_cast<blob_attr*>(nullptr)}) {
        for (const policy& wanted : {policy{{"a", typeid(unsigned int)}}, policy()}) {
            EXPECT_EQ(
                orvix_testing::what_thrown<std::runtime_error>([&] { to_table(head, wanted); }),
                parse_failed);
        }
    }
}

// A message of `depth` tables, each the only field of the one around it.
blob_buf nested_tables(int depth, bool array_at_bottom) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    std::vector<void*> cookies;
    for (int level = 0; level < depth; ++level) {
        cookies.push_back(blobmsg_open_table(&buf, "t"));
    }
    if (array_at_bottom) {
        cookies.push_back(blobmsg_open_array(&buf, "a"));
    }
    for (auto cookie = cookies.rbegin(); cookie != cookies.rend(); ++cookie) {
        blob_nest_end(&buf, *cookie);
    }
    return buf;
}

TEST(blob_utils, nesting_is_bounded_so_a_hostile_message_cannot_exhaust_the_stack) {
    // 1 MiB of nested containers would nest about 130000 deep.
    auto deep = nested_tables(100000, false);
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_table(deep.head); }),
              table_bad_attr);
    blob_buf_free(&deep);
    auto deep_array = nested_tables(1023, true);
    EXPECT_EQ(orvix_testing::what_thrown<std::runtime_error>([&] { to_table(deep_array.head); }),
              array_bad_attr);
    blob_buf_free(&deep_array);

    // The refusal leaves nothing behind: a message just within the bound still decodes.
    auto within = nested_tables(1023, false);
    const table decoded = to_table(within.head);
    const table* level = &decoded;
    int depth = 0;
    while (!level->empty()) {
        level = &level->begin()->second.get<table>();
        ++depth;
    }
    EXPECT_EQ(depth, 1023);
    blob_buf_free(&within);
}

} // namespace
