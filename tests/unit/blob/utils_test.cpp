// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <gtest/gtest.h>

#include <orvix/blob/utils.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;
using orvix::blob::utils::to_array;
using orvix::blob::utils::to_attr;
using orvix::blob::utils::to_blobmsg_type;
using orvix::blob::utils::to_table;
using orvix::blob::utils::to_unspec;
using bytes = std::vector<unsigned char>;
using policy = std::multimap<std::string, std::type_index>;

const std::string table_bad_attr = "orvix::blob::utils::to_table: Bad attr";
const std::string array_bad_attr = "orvix::blob::utils::to_array: Bad attr";
const std::string parse_failed = "orvix::blob::utils::to_table: Failed to parse message";

bytes hex(const std::string& text) {
    std::istringstream in(text);
    bytes result;
    unsigned int byte;
    while (in >> std::hex >> byte) {
        result.push_back(static_cast<unsigned char>(byte));
    }
    return result;
}

/// A message head, as libubus hands it over (a plain attribute with id 0),
/// around the fields in `body`.
class message {
public:
    explicit message(const std::string& body) : message(hex(body)) {}
    explicit message(const bytes& body) : storage(body.size() + 8, 0) {
        const std::size_t length = body.size() + 4;
        storage[1] = static_cast<unsigned char>(length >> 16);
        storage[2] = static_cast<unsigned char>(length >> 8);
        storage[3] = static_cast<unsigned char>(length);
        std::copy(body.begin(), body.end(), storage.begin() + 4);
    }

    blob_attr* head() { return reinterpret_cast<blob_attr*>(storage.data()); }
    blob_attr* first_field() { return reinterpret_cast<blob_attr*>(storage.data() + 4); }

private:
    bytes storage;
};

// Fields from the reference dumps of libubox.
const std::string int32_a_1 = "85 00 00 0c 00 01 61 00 00 00 00 01";
const std::string string_b_x = "83 00 00 0a 00 01 62 00 78 00 00 00";
const std::string array_arr = "81 00 00 30 00 03 61 72 72 00 00 00 "
                              "85 00 00 0c 00 00 00 00 00 00 00 01 "
                              "83 00 00 0c 00 00 00 00 74 77 6f 00 "
                              "87 00 00 09 00 00 00 00 01 00 00 00";
const std::string table_t = "82 00 00 2c 00 01 74 00 "
                            "85 00 00 0c 00 01 78 00 00 00 00 05 "
                            "82 00 00 18 00 02 69 6e 00 00 00 00 "
                            "83 00 00 0b 00 01 73 00 68 69 00 00";
const std::string bool_flag = "87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00";

template <typename Exception, typename Function>
std::string failure_of(Function&& decode) {
    try {
        decode();
    } catch (const Exception& e) {
        return e.what();
    }
    return "no exception";
}

TEST(blob_utils, null_gives_empty_containers) {
    EXPECT_TRUE(to_table(nullptr).empty());
    EXPECT_TRUE(to_array(nullptr).empty());
    EXPECT_TRUE(to_unspec(nullptr).empty());
}

TEST(blob_utils, int32_and_string_fields) {
    message msg(int32_a_1 + " " + string_b_x);
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_EQ(fields.find("a")->second.type(), typeid(unsigned int));
    EXPECT_EQ(fields.find("a")->second.get<unsigned int>(), 1u);
    EXPECT_EQ(fields.find("b")->second.get<std::string>(), "x");
}

TEST(blob_utils, an_array_field) {
    message msg(array_arr);
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.size(), 1u);
    const array& members = fields.find("arr")->second.get<array>();
    ASSERT_EQ(members.size(), 3u);
    auto member = members.begin();
    EXPECT_EQ(member->get<unsigned int>(), 1u);
    EXPECT_EQ((++member)->get<std::string>(), "two");
    EXPECT_EQ((++member)->type(), typeid(unsigned char));
    EXPECT_EQ(member->get<unsigned char>(), 1);

    const array direct = to_array(msg.first_field());
    ASSERT_EQ(direct.size(), 3u);
    EXPECT_EQ(direct.front().get<unsigned int>(), 1u);
}

TEST(blob_utils, a_nested_table_field) {
    message msg(table_t);
    const table fields = to_table(msg.head());
    const table& outer = fields.find("t")->second.get<table>();
    ASSERT_EQ(outer.size(), 2u);
    EXPECT_EQ(outer.find("x")->second.get<unsigned int>(), 5u);
    const table& inner = outer.find("in")->second.get<table>();
    ASSERT_EQ(inner.size(), 1u);
    EXPECT_EQ(inner.find("s")->second.get<std::string>(), "hi");
}

TEST(blob_utils, int8_is_unsigned_char_unless_a_bool_is_asked_for) {
    message msg(bool_flag);
    const table loose = to_table(msg.head());
    EXPECT_EQ(loose.find("flag")->second.type(), typeid(unsigned char));
    EXPECT_EQ(loose.find("flag")->second.get<unsigned char>(), 1);

    const table as_bool = to_table(msg.head(), policy{{"flag", typeid(bool)}});
    EXPECT_EQ(as_bool.find("flag")->second.type(), typeid(bool));
    EXPECT_TRUE(as_bool.find("flag")->second.get<bool>());

    const table as_byte = to_table(msg.head(), policy{{"flag", typeid(unsigned char)}});
    EXPECT_EQ(as_byte.find("flag")->second.type(), typeid(unsigned char));
    EXPECT_EQ(as_byte.find("flag")->second.get<unsigned char>(), 1);

    message two("87 00 00 09 00 01 62 00 02 00 00 00");
    EXPECT_TRUE(to_attr(two.first_field(), true).get<bool>());
    EXPECT_EQ(to_attr(two.first_field(), false).get<unsigned char>(), 2);
    message zero("87 00 00 09 00 01 62 00 00 00 00 00");
    EXPECT_FALSE(to_attr(zero.first_field(), true).get<bool>());
}

TEST(blob_utils, as_bool_has_no_effect_on_other_types) {
    message msg(int32_a_1);
    EXPECT_EQ(to_attr(msg.first_field(), true).type(), typeid(unsigned int));
}

TEST(blob_utils, int8_inside_containers_stays_unsigned_char) {
    message msg("82 00 00 14 00 01 74 00 87 00 00 09 00 01 62 00 01 00 00 00");
    const attr decoded = to_attr(msg.first_field(), true);
    EXPECT_EQ(decoded.get<table>().find("b")->second.type(), typeid(unsigned char));
}

TEST(blob_utils, numbers_are_read_big_endian) {
    message msg("84 00 00 14 00 03 62 69 67 00 00 00 01 02 03 04 05 06 07 08 "
                "86 00 00 0a 00 01 73 00 12 34 00 00 "
                "88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00 "
                "85 00 00 0c 00 01 6e 00 ff ff ff fe");
    const table fields = to_table(msg.head());
    EXPECT_EQ(fields.find("big")->second.get<unsigned long long>(), 0x0102030405060708ull);
    EXPECT_EQ(fields.find("s")->second.get<unsigned short>(), 0x1234);
    EXPECT_EQ(fields.find("d")->second.get<double>(), 1.5);
    EXPECT_EQ(fields.find("n")->second.get<int>(), -2);
}

TEST(blob_utils, a_double_may_carry_more_than_eight_bytes) {
    message msg("88 00 00 14 00 01 64 00 c0 00 00 00 00 00 00 00 ff ff ff ff");
    EXPECT_EQ(to_table(msg.head()).find("d")->second.get<double>(), -2.0);
}

TEST(blob_utils, strings_end_at_their_first_nul) {
    message msg("83 00 00 0e 00 01 73 00 61 62 00 63 64 00 00 00");
    EXPECT_EQ(to_table(msg.head()).find("s")->second.get<std::string>(), "ab");
}

TEST(blob_utils, unspec_fields_give_their_bytes) {
    message msg("80 00 00 0b 00 01 75 00 01 00 03 00 80 00 00 08 00 01 76 00");
    const table fields = to_table(msg.head());
    EXPECT_EQ(fields.find("u")->second.get<bytes>(), (bytes{1, 0, 3}));
    EXPECT_TRUE(fields.find("v")->second.get<bytes>().empty());
    EXPECT_EQ(to_unspec(msg.first_field()), (bytes{1, 0, 3}));
    // A head has no name: its whole payload comes back.
    EXPECT_EQ(to_unspec(msg.head()), hex("80 00 00 0b 00 01 75 00 01 00 03 00 "
                                         "80 00 00 08 00 01 76 00"));
}

TEST(blob_utils, empty_containers_and_an_empty_name) {
    message msg("82 00 00 08 00 00 00 00 81 00 00 08 00 01 65 00");
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_TRUE(fields.find("")->second.get<table>().empty());
    EXPECT_TRUE(fields.find("e")->second.get<array>().empty());
}

TEST(blob_utils, unnamed_fields_are_left_out_of_tables_but_not_arrays) {
    message msg("05 00 00 08 00 00 00 07 " + int32_a_1);
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.size(), 1u);
    EXPECT_EQ(fields.find("a")->second.get<unsigned int>(), 1u);

    const array members = to_array(msg.head());
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members.front().get<unsigned int>(), 7u);
    EXPECT_EQ(members.back().get<unsigned int>(), 1u);
}

TEST(blob_utils, equal_names_are_all_kept_in_wire_order) {
    message msg("85 00 00 0c 00 01 6b 00 00 00 00 02 " + string_b_x +
                " 85 00 00 0c 00 01 6b 00 00 00 00 01");
    const table fields = to_table(msg.head());
    ASSERT_EQ(fields.count("k"), 2u);
    const auto range = fields.equal_range("k");
    EXPECT_EQ(range.first->second.get<unsigned int>(), 2u);
    EXPECT_EQ(std::next(range.first)->second.get<unsigned int>(), 1u);
}

TEST(blob_utils, a_truncated_last_field_ends_the_walk) {
    message claims_more(int32_a_1 + " 85 00 00 40 00 01 62 00");
    EXPECT_EQ(to_table(claims_more.head()).size(), 1u);
    message zero_length(int32_a_1 + " 00 00 00 00");
    EXPECT_EQ(to_table(zero_length.head()).size(), 1u);
    EXPECT_EQ(to_array(zero_length.head()).size(), 1u);
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
    };
    for (const auto& body : malformed) {
        message msg(body);
        EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(msg.head()); }), table_bad_attr)
            << body;
        EXPECT_EQ(failure_of<std::runtime_error>([&] { to_array(msg.head()); }), array_bad_attr)
            << body;
        EXPECT_EQ(failure_of<std::runtime_error>([&] {
                      to_table(msg.head(), policy{{"a", typeid(unsigned int)}});
                  }),
                  parse_failed)
            << body;
    }
}

TEST(blob_utils, a_malformed_member_deep_inside_names_the_innermost_container) {
    // "t" holds "l", an array holding a table with an INT32 of 2 bytes.
    message in_table("82 00 00 24 00 01 74 00 "
                     "81 00 00 1c 00 01 6c 00 "
                     "82 00 00 14 00 00 00 00 "
                     "85 00 00 0a 00 01 62 00 00 01 00 00");
    EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(in_table.head()); }), table_bad_attr);

    // "t" holds "l", an array holding an INT32 of 2 bytes.
    message in_array("82 00 00 1c 00 01 74 00 "
                     "81 00 00 14 00 01 6c 00 "
                     "85 00 00 0a 00 00 00 00 00 01 00 00");
    EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(in_array.head()); }), array_bad_attr);
}

TEST(blob_utils, to_attr_refuses_types_that_blobmsg_lacks) {
    message nine("89 00 00 08 00 01 61 00");
    EXPECT_EQ(failure_of<std::logic_error>([&] { to_attr(nine.first_field(), false); }),
              "orvix::blob::utils::to_attr: Unknown type9");
    message twelve("8c 00 00 08 00 01 61 00");
    EXPECT_EQ(failure_of<std::logic_error>([&] { to_attr(twelve.first_field(), true); }),
              "orvix::blob::utils::to_attr: Unknown type12");
}

// Shaped like inputs that made the upstream libraries misbehave in fuzzing:
// none may crash, and each is either decoded or refused as malformed.
TEST(blob_utils, fuzzed_bodies_are_decoded_or_refused) {
    struct fuzzed {
        std::string body;
        bool refused;
    };
    const std::string many_e5 = " e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5 e5";
    std::string many_ff;
    for (int i = 0; i < 30; ++i) {
        many_ff += " ff";
    }
    const std::vector<fuzzed> inputs = {
        {"d1 00", false},
        {"36", false},
        {"01 00 01", false},
        {"0a 00 00 00 00 41", false},
        {"00 00 00 0a 02 00 00 02 36 00", false},
        {"ff ff ff ff dd 0a", false},
        {"01 04 00 00 00 01 00 00 35 25", false},
        {"0a 0a 0a 0a 00 06", false},
        {"03 00 00 02", true},
        {"03 00 00 03" + many_e5, true},
        {"03 00 00 04", true},
        {"03 00 00 03 00 00", true},
        {"03 00 00 03" + many_ff + " 03 03", true},
        {"00 00 00 09 02 00 00 02 00 00 00 09 02 00 00 02", true},
    };
    for (const auto& input : inputs) {
        message msg(input.body);
        if (input.refused) {
            EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(msg.head()); }), table_bad_attr)
                << input.body;
            EXPECT_EQ(failure_of<std::runtime_error>([&] { to_array(msg.head()); }), array_bad_attr)
                << input.body;
            EXPECT_EQ(failure_of<std::runtime_error>([&] {
                          to_table(msg.head(), policy{{"message", typeid(std::string)}});
                      }),
                      parse_failed)
                << input.body;
        } else {
            EXPECT_TRUE(to_table(msg.head()).empty()) << input.body;
            EXPECT_TRUE(to_array(msg.head()).empty()) << input.body;
            EXPECT_TRUE(to_table(msg.head(), policy{{"message", typeid(std::string)}}).empty())
                << input.body;
        }
    }
}

TEST(blob_utils, a_policy_picks_only_the_fields_it_names) {
    message msg(int32_a_1 + " " + string_b_x);
    const table fields =
        to_table(msg.head(), policy{{"a", typeid(unsigned int)}, {"c", typeid(std::string)}});
    ASSERT_EQ(fields.size(), 1u);
    EXPECT_EQ(fields.find("a")->second.get<unsigned int>(), 1u);
}

TEST(blob_utils, a_policy_leaves_out_a_field_of_another_type) {
    message msg(int32_a_1 + " " + string_b_x);
    EXPECT_TRUE(to_table(msg.head(), policy{{"b", typeid(unsigned int)}}).empty());
    EXPECT_TRUE(to_table(msg.head(), policy{{"a", typeid(unsigned long long)}}).empty());
    EXPECT_TRUE(to_table(msg.head(), policy{{"a", typeid(bool)}}).empty());
}

TEST(blob_utils, of_equal_names_the_first_that_fits_the_policy_wins) {
    message msg("83 00 00 0a 00 01 6b 00 73 00 00 00 "
                "85 00 00 0c 00 01 6b 00 00 00 00 07 "
                "85 00 00 0c 00 01 6b 00 00 00 00 08");
    const table one = to_table(msg.head(), policy{{"k", typeid(unsigned int)}});
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one.find("k")->second.get<unsigned int>(), 7u);

    policy both;
    both.emplace("k", typeid(std::string));
    both.emplace("k", typeid(unsigned int));
    const table two = to_table(msg.head(), both);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two.begin()->second.get<std::string>(), "s");
    EXPECT_EQ(std::next(two.begin())->second.get<unsigned int>(), 7u);
}

TEST(blob_utils, an_unspec_policy_takes_a_field_of_any_type_as_it_is) {
    message msg(int32_a_1);
    const table fields = to_table(msg.head(), policy{{"a", typeid(bytes)}});
    EXPECT_EQ(fields.find("a")->second.type(), typeid(unsigned int));
}

TEST(blob_utils, a_policy_decodes_containers_loosely) {
    message msg(table_t + " " + array_arr);
    const table fields = to_table(msg.head(), policy{{"t", typeid(table)}, {"arr", typeid(array)}});
    ASSERT_EQ(fields.size(), 2u);
    EXPECT_EQ(fields.find("t")->second.get<table>().size(), 2u);
    EXPECT_EQ(fields.find("arr")->second.get<array>().back().type(), typeid(unsigned char));
}

TEST(blob_utils, a_policy_skips_unnamed_fields) {
    message msg("05 00 00 08 00 00 00 07 " + int32_a_1);
    const table fields = to_table(msg.head(), policy{{"", typeid(unsigned int)}});
    EXPECT_TRUE(fields.empty());
}

TEST(blob_utils, libubox_cannot_parse_an_empty_or_missing_message) {
    message empty("");
    EXPECT_EQ(failure_of<std::runtime_error>([&] {
                  to_table(empty.head(), policy{{"a", typeid(unsigned int)}});
              }),
              parse_failed);
    EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(empty.head(), policy()); }),
              parse_failed);
    EXPECT_EQ(failure_of<std::runtime_error>([&] {
                  to_table(nullptr, policy{{"a", typeid(unsigned int)}});
              }),
              parse_failed);
}

TEST(blob_utils, a_policy_with_a_type_that_is_no_value_kind_is_refused) {
    message msg(int32_a_1);
    const std::string unknown = "orvix::blob::utils::to_blobmsg_type: Unknown type";
    for (const std::type_index& type :
         {std::type_index(typeid(int)), std::type_index(typeid(signed char)),
          std::type_index(typeid(long)), std::type_index(typeid(float)),
          std::type_index(typeid(const char*)), std::type_index(typeid(attr))}) {
        EXPECT_EQ(failure_of<std::logic_error>([&] {
                      to_table(msg.head(), policy{{"a", type}});
                  }),
                  unknown)
            << type.name();
        EXPECT_EQ(failure_of<std::logic_error>([&] { to_blobmsg_type(type); }), unknown);
    }
}

TEST(blob_utils, each_value_kind_has_its_blobmsg_type) {
    EXPECT_EQ(to_blobmsg_type(typeid(bytes)), BLOBMSG_TYPE_UNSPEC);
    EXPECT_EQ(to_blobmsg_type(typeid(array)), BLOBMSG_TYPE_ARRAY);
    EXPECT_EQ(to_blobmsg_type(typeid(table)), BLOBMSG_TYPE_TABLE);
    EXPECT_EQ(to_blobmsg_type(typeid(std::string)), BLOBMSG_TYPE_STRING);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned long long)), BLOBMSG_TYPE_INT64);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned int)), BLOBMSG_TYPE_INT32);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned short)), BLOBMSG_TYPE_INT16);
    EXPECT_EQ(to_blobmsg_type(typeid(unsigned char)), BLOBMSG_TYPE_INT8);
    EXPECT_EQ(to_blobmsg_type(typeid(bool)), BLOBMSG_TYPE_INT8);
    EXPECT_EQ(to_blobmsg_type(typeid(double)), BLOBMSG_TYPE_DOUBLE);
}

} // namespace

namespace {

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
    EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(deep.head); }), table_bad_attr);
    blob_buf_free(&deep);

    auto deep_array = nested_tables(1023, true);
    EXPECT_EQ(failure_of<std::runtime_error>([&] { to_table(deep_array.head); }), array_bad_attr);
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
