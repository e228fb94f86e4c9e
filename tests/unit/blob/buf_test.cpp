// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <orvix_testing/thrown.h>

#include <gtest/gtest.h>

#include <orvix_testing/blob.h>

#include <orvix/blob/buf.h>

#include <exception>
#include <functional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::buf;
using orvix::blob::table;
using orvix_testing::bytes;

const std::string prefix = "orvix::blob::buff: ";
const std::string a_1 = "00 00 00 10 85 00 00 0c 00 01 61 00 00 00 00 01";

std::string dump(const buf& message) {
    return orvix_testing::to_hex(*message.native());
}

std::string add_failure(buf& message, const std::string& name, const attr& value) {
    return orvix_testing::what_thrown([&] { message.add(name, value); });
}

TEST(blob_buf, add_appends_assign_replaces_and_clear_empties) {
    buf message;
    EXPECT_EQ(dump(message), "00 00 00 04");
    message.add("a", attr(1u));
    message.add("a", attr(2u));
    EXPECT_EQ(dump(message), "00 00 00 1c 85 00 00 0c 00 01 61 00 00 00 00 01 "
                             "85 00 00 0c 00 01 61 00 00 00 00 02");
    message.assign(table{{"b", "x"}});
    EXPECT_EQ(dump(message), "00 00 00 10 83 00 00 0a 00 01 62 00 78 00 00 00");
    buf& self = (message = table{{"a", 1u}});
    EXPECT_EQ(&self, &message);
    EXPECT_EQ(dump(message), a_1);
    message.clear();
    EXPECT_EQ(dump(message), "00 00 00 04");
    const buf& view = message;
    EXPECT_EQ(view.native(), message.native());
}

TEST(blob_buf, a_growing_message_keeps_every_byte) {
    const std::string text(1000, 'z');
    const buf message(table{{"a", text}, {"b", 0xdeadbeefu}});
    const blob_attr* head = message.native()->head;
    // 4 head + (4 + 4 + 1001, padded to 1012) + 12.
    ASSERT_EQ(blob_raw_len(head), 1028u);
    const auto* data = reinterpret_cast<const char*>(head);
    EXPECT_EQ(std::string(data + 12), text);
    EXPECT_EQ(std::string(data + 1016, data + 1028),
              std::string("\x85\x00\x00\x0c\x00\x01\x62\x00\xde\xad\xbe\xef", 12));
}

TEST(blob_buf, an_empty_attr_is_unsupported_at_any_depth_and_clear_recovers) {
    const char* name = typeid(void).name();
    const std::string expected =
        prefix + "Unsupported type [" + (name[0] == '*' ? name + 1 : name) + "]";
    buf message;
    for (const attr& value : {attr(), attr(array{1u, attr()}), attr(array{table{{"x", attr()}}})}) {
        EXPECT_EQ(add_failure(message, "e", value), expected);
        message.clear();
    }
    EXPECT_EQ(orvix_testing::what_thrown([] { buf refused(table{{"e", attr()}}); }), expected);
    message.add("a", attr(1u));
    EXPECT_EQ(dump(message), a_1);
}

TEST(blob_buf, each_kind_fails_with_its_own_text_when_it_cannot_be_written) {
    buf message;
    const std::size_t too_long = 0x1000000;
    EXPECT_EQ(add_failure(message, "u", bytes(too_long)), prefix + "Faild to handle unspec");
    message.clear();
    EXPECT_EQ(add_failure(message, "s", std::string(too_long, 'x')),
              prefix + "Faild to handle string");
    message.clear();

    // Filled with the smallest field there is, an empty table without a name, 8 bytes.
    message.add("", attr(bytes(0xfff000)));
    int added = 0;
    std::string full = "nothing thrown";
    while (full == "nothing thrown") {
        full = add_failure(message, "", table());
        ASSERT_LT(++added, 100000) << "the buffer never stopped growing";
    }
    EXPECT_EQ(full, prefix + "Faild to handle table");
    const std::vector<std::pair<attr, std::string>> kinds = {
        {bytes(), "unspec"},
        {array(), "array"},
        {table(), "table"},
        {std::string(), "string"},
        {0ull, "int64"},
        {0u, "int32"},
        {static_cast<unsigned short>(0), "int16"},
        {static_cast<unsigned char>(0), "int8"},
        {false, "boolean"},
        {0.0, "decimal"},
    };
    for (const auto& kind : kinds) {
        EXPECT_EQ(add_failure(message, "", kind.first), prefix + "Faild to handle " + kind.second);
    }
}

} // namespace
