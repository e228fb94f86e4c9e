// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <gtest/gtest.h>

#include <orvix/blob/buf.h>

#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::buf;
using orvix::blob::table;
using bytes = std::vector<unsigned char>;

const std::string prefix = "orvix::blob::buff: ";

/// The whole message as lower-case hex bytes separated by blanks.
std::string dump(const buf& message) {
    const blob_attr* head = message.native()->head;
    const auto* data = reinterpret_cast<const unsigned char*>(head);
    std::string text;
    for (std::size_t i = 0; i < blob_raw_len(head); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof(byte), i == 0 ? "%02x" : " %02x", data[i]);
        text += byte;
    }
    return text;
}

std::string dump(const table& fields) {
    return dump(buf(fields));
}

std::string one_field(const std::string& name, const attr& value) {
    table fields;
    fields.emplace(name, value);
    return dump(fields);
}

std::string void_name() {
    const char* name = typeid(void).name();
    return name[0] == '*' ? name + 1 : name;
}

template <typename Exception>
std::string failure_of(buf& message, const std::string& name, const attr& value) {
    try {
        message.add(name, value);
    } catch (const Exception& e) {
        return e.what();
    }
    return "no exception";
}

TEST(blob_buf, an_empty_table_gives_only_the_root_attribute) {
    buf empty;
    EXPECT_EQ(dump(empty), "00 00 00 04");
    EXPECT_EQ(dump(table()), "00 00 00 04");
}

TEST(blob_buf, int32_and_string_fields) {
    table fields;
    fields.emplace("a", 1u);
    fields.emplace("b", "x");
    EXPECT_EQ(dump(fields), "00 00 00 1c "
                            "85 00 00 0c 00 01 61 00 00 00 00 01 "
                            "83 00 00 0a 00 01 62 00 78 00 00 00");
}

TEST(blob_buf, an_array_holds_unnamed_members_in_list_order) {
    EXPECT_EQ(one_field("arr", array{attr(1u), attr("two"), attr(true)}),
              "00 00 00 34 "
              "81 00 00 30 00 03 61 72 72 00 00 00 "
              "85 00 00 0c 00 00 00 00 00 00 00 01 "
              "83 00 00 0c 00 00 00 00 74 77 6f 00 "
              "87 00 00 09 00 00 00 00 01 00 00 00");
}

TEST(blob_buf, a_nested_table_is_written_in_key_order) {
    table inner;
    inner.emplace("s", "hi");
    table outer;
    outer.emplace("x", 5u);
    outer.emplace("in", inner);
    EXPECT_EQ(one_field("t", outer), "00 00 00 30 "
                                     "82 00 00 2c 00 01 74 00 "
                                     "82 00 00 18 00 02 69 6e 00 00 00 00 "
                                     "83 00 00 0b 00 01 73 00 68 69 00 00 "
                                     "85 00 00 0c 00 01 78 00 00 00 00 05");
}

TEST(blob_buf, a_table_inside_an_array) {
    table member;
    member.emplace("k", true);
    EXPECT_EQ(one_field("l", array{attr(member)}), "00 00 00 20 "
                                                   "81 00 00 1c 00 01 6c 00 "
                                                   "82 00 00 14 00 00 00 00 "
                                                   "87 00 00 09 00 01 6b 00 01 00 00 00");
}

TEST(blob_buf, empty_containers_and_an_empty_name) {
    table fields;
    fields.emplace("", table());
    fields.emplace("e", array());
    EXPECT_EQ(dump(fields), "00 00 00 14 "
                            "82 00 00 08 00 00 00 00 "
                            "81 00 00 08 00 01 65 00");
}

TEST(blob_buf, bool_is_int8_like_unsigned_char) {
    const std::string flag_true = "00 00 00 14 87 00 00 0d 00 04 66 6c 61 67 00 00 01 00 00 00";
    EXPECT_EQ(one_field("flag", true), flag_true);
    EXPECT_EQ(one_field("flag", static_cast<unsigned char>(1)), flag_true);
    EXPECT_EQ(one_field("flag", false),
              "00 00 00 14 87 00 00 0d 00 04 66 6c 61 67 00 00 00 00 00 00");
    EXPECT_EQ(one_field("b", static_cast<unsigned char>(0xab)),
              "00 00 00 10 87 00 00 09 00 01 62 00 ab 00 00 00");
}

TEST(blob_buf, doubles_are_big_endian_ieee_754) {
    EXPECT_EQ(one_field("d", 1.5), "00 00 00 14 88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00");
    EXPECT_EQ(one_field("d", -2.0), "00 00 00 14 88 00 00 10 00 01 64 00 c0 00 00 00 00 00 00 00");
    EXPECT_EQ(one_field("d", 0.1), "00 00 00 14 88 00 00 10 00 01 64 00 3f b9 99 99 99 99 99 9a");
}

TEST(blob_buf, integers_are_big_endian) {
    table fields;
    fields.emplace("big", 0x0102030405060708ull);
    fields.emplace("s", static_cast<unsigned short>(0x1234));
    EXPECT_EQ(dump(fields), "00 00 00 24 "
                            "84 00 00 14 00 03 62 69 67 00 00 00 01 02 03 04 05 06 07 08 "
                            "86 00 00 0a 00 01 73 00 12 34 00 00");
    EXPECT_EQ(one_field("i", 0x0a0b0c0du), "00 00 00 10 85 00 00 0c 00 01 69 00 0a 0b 0c 0d");
}

TEST(blob_buf, signed_values_go_out_as_their_unsigned_bits) {
    EXPECT_EQ(one_field("i", -1), "00 00 00 10 85 00 00 0c 00 01 69 00 ff ff ff ff");
    EXPECT_EQ(one_field("s", static_cast<short>(-2)),
              "00 00 00 10 86 00 00 0a 00 01 73 00 ff fe 00 00");
    EXPECT_EQ(one_field("c", static_cast<signed char>(-1)),
              "00 00 00 10 87 00 00 09 00 01 63 00 ff 00 00 00");
    EXPECT_EQ(one_field("l", std::numeric_limits<long long>::min()),
              "00 00 00 14 84 00 00 10 00 01 6c 00 80 00 00 00 00 00 00 00");
}

TEST(blob_buf, strings_end_at_their_first_nul) {
    EXPECT_EQ(one_field("s", std::string("ab\0cd", 5)),
              "00 00 00 10 83 00 00 0b 00 01 73 00 61 62 00 00");
    EXPECT_EQ(one_field("s", std::string()), "00 00 00 10 83 00 00 09 00 01 73 00 00 00 00 00");
}

TEST(blob_buf, byte_vectors_are_unspec_as_they_are) {
    EXPECT_EQ(one_field("u", bytes{1, 0, 3}), "00 00 00 10 80 00 00 0b 00 01 75 00 01 00 03 00");
    EXPECT_EQ(one_field("u", bytes()), "00 00 00 0c 80 00 00 08 00 01 75 00");
}

TEST(blob_buf, equal_keys_become_separate_fields_in_insertion_order) {
    table fields;
    fields.emplace("k", 1u);
    fields.emplace("a", 9u);
    fields.emplace("k", "two");
    EXPECT_EQ(dump(fields), "00 00 00 28 "
                            "85 00 00 0c 00 01 61 00 00 00 00 09 "
                            "85 00 00 0c 00 01 6b 00 00 00 00 01 "
                            "83 00 00 0c 00 01 6b 00 74 77 6f 00");
}

TEST(blob_buf, a_long_name_gets_a_longer_header) {
    EXPECT_EQ(one_field("longername", static_cast<unsigned char>(7)),
              "00 00 00 1c 87 00 00 15 00 0a 6c 6f 6e 67 65 72 6e 61 6d 65 00 00 00 00 07 00 00 "
              "00");
}

TEST(blob_buf, add_appends_after_what_is_there) {
    buf message;
    message.add("a", attr(1u));
    message.add("a", attr(2u));
    EXPECT_EQ(dump(message), "00 00 00 1c "
                             "85 00 00 0c 00 01 61 00 00 00 00 01 "
                             "85 00 00 0c 00 01 61 00 00 00 00 02");
}

TEST(blob_buf, assign_replaces_and_clear_empties) {
    table first;
    first.emplace("a", 1u);
    table second;
    second.emplace("b", "x");
    buf message(first);
    message.assign(second);
    EXPECT_EQ(dump(message), "00 00 00 10 83 00 00 0a 00 01 62 00 78 00 00 00");
    buf& self = (message = first);
    EXPECT_EQ(&self, &message);
    EXPECT_EQ(dump(message), "00 00 00 10 85 00 00 0c 00 01 61 00 00 00 00 01");
    message.clear();
    EXPECT_EQ(dump(message), "00 00 00 04");
}

TEST(blob_buf, native_gives_the_owned_buffer) {
    buf message;
    const buf& view = message;
    EXPECT_EQ(view.native(), message.native());
    EXPECT_NE(message.native()->head, nullptr);
}

TEST(blob_buf, a_growing_message_keeps_every_byte) {
    const std::string text(1000, 'z');
    table fields;
    fields.emplace("a", text);
    fields.emplace("b", 0xdeadbeefu);
    buf message(fields);
    const blob_attr* head = message.native()->head;
    // 4 head + (4 + 4 + 1001, padded to 1012) + 12.
    EXPECT_EQ(blob_raw_len(head), 1028u);
    const auto* data = reinterpret_cast<const unsigned char*>(head);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data) + 12), text);
    EXPECT_EQ(std::string(data + 1016, data + 1028),
              std::string("\x85\x00\x00\x0c\x00\x01\x62\x00\xde\xad\xbe\xef", 12));
}

TEST(blob_buf, an_empty_attr_is_unsupported_at_any_depth) {
    const std::string expected = prefix + "Unsupported type [" + void_name() + "]";
    buf message;
    EXPECT_EQ(failure_of<std::logic_error>(message, "e", attr()), expected);
    message.clear();
    EXPECT_EQ(failure_of<std::logic_error>(message, "a", array{attr(1u), attr()}), expected);
    message.clear();
    table inner;
    inner.emplace("x", attr());
    EXPECT_EQ(failure_of<std::logic_error>(message, "t", array{attr(inner)}), expected);

    table fields;
    fields.emplace("e", attr());
    try {
        buf refused(fields);
        ADD_FAILURE() << "an empty attr was encoded";
    } catch (const std::logic_error& e) {
        EXPECT_EQ(e.what(), expected);
    }
}

TEST(blob_buf, a_cleared_buffer_is_usable_after_a_failure) {
    buf message;
    EXPECT_THROW(message.add("a", array{attr(1u), attr()}), std::logic_error);
    message.clear();
    message.add("a", attr(1u));
    EXPECT_EQ(dump(message), "00 00 00 10 85 00 00 0c 00 01 61 00 00 00 00 01");
}

TEST(blob_buf, a_value_longer_than_a_blob_can_be_fails) {
    buf message;
    const std::size_t too_long = 0x1000000;
    EXPECT_EQ(failure_of<std::runtime_error>(message, "u", bytes(too_long)),
              prefix + "Faild to handle unspec");
    message.clear();
    EXPECT_EQ(failure_of<std::runtime_error>(message, "s", std::string(too_long, 'x')),
              prefix + "Faild to handle string");
}

TEST(blob_buf, every_kind_fails_with_its_own_text_once_the_buffer_is_full) {
    buf message;
    message.add("", attr(bytes(0xfff000)));
    // The smallest field there is: an empty table without a name, 8 bytes.
    int added = 0;
    std::string full;
    while (full.empty()) {
        try {
            message.add("", attr(table()));
        } catch (const std::runtime_error& e) {
            full = e.what();
        }
        ASSERT_LT(++added, 100000) << "the buffer never stopped growing";
    }
    EXPECT_EQ(full, prefix + "Faild to handle table");

    const std::vector<std::pair<attr, std::string>> kinds = {
        {attr(bytes()), "unspec"},
        {attr(array()), "array"},
        {attr(table()), "table"},
        {attr(std::string()), "string"},
        {attr(0ull), "int64"},
        {attr(0u), "int32"},
        {attr(static_cast<unsigned short>(0)), "int16"},
        {attr(static_cast<unsigned char>(0)), "int8"},
        {attr(false), "boolean"},
        {attr(0.0), "decimal"},
    };
    for (const auto& kind : kinds) {
        EXPECT_EQ(failure_of<std::runtime_error>(message, "", kind.first),
                  prefix + "Faild to handle " + kind.second);
    }
}

} // namespace
