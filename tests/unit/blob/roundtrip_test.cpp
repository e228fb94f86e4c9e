// GoogleTest first: libubox's headers define a macro named __constructor, which
// breaks <cxxabi.h> when that comes later.
#include <gtest/gtest.h>

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <typeindex>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::buf;
using orvix::blob::table;
using orvix::blob::utils::to_table;
using bytes = std::vector<unsigned char>;
using policy = std::multimap<std::string, std::type_index>;

std::uint64_t bits_of(double number) {
    std::uint64_t bits;
    std::memcpy(&bits, &number, sizeof(bits));
    return bits;
}

testing::AssertionResult same(const attr& expected, const attr& actual, const std::string& path);

testing::AssertionResult same(const table& expected, const table& actual, const std::string& path) {
    if (expected.size() != actual.size()) {
        return testing::AssertionFailure()
               << path << ": " << actual.size() << " fields, not " << expected.size();
    }
    for (auto e = expected.begin(), a = actual.begin(); e != expected.end(); ++e, ++a) {
        if (e->first != a->first) {
            return testing::AssertionFailure()
                   << path << ": key \"" << a->first << "\", not \"" << e->first << "\"";
        }
        const auto result = same(e->second, a->second, path + "." + e->first);
        if (!result) {
            return result;
        }
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult same(const attr& expected, const attr& actual, const std::string& path) {
    if (expected.type() != actual.type()) {
        return testing::AssertionFailure()
               << path << ": " << actual.type().name() << ", not " << expected.type().name();
    }
    bool equal = false;
    if (expected.type() == typeid(table)) {
        return same(expected.get<table>(), actual.get<table>(), path);
    } else if (expected.type() == typeid(array)) {
        const array& e = expected.get<array>();
        const array& a = actual.get<array>();
        if (e.size() != a.size()) {
            return testing::AssertionFailure()
                   << path << ": " << a.size() << " members, not " << e.size();
        }
        int index = 0;
        for (auto i = e.begin(), j = a.begin(); i != e.end(); ++i, ++j, ++index) {
            const auto result = same(*i, *j, path + "[" + std::to_string(index) + "]");
            if (!result) {
                return result;
            }
        }
        return testing::AssertionSuccess();
    } else if (expected.type() == typeid(std::string)) {
        equal = expected.get<std::string>() == actual.get<std::string>();
    } else if (expected.type() == typeid(bytes)) {
        equal = expected.get<bytes>() == actual.get<bytes>();
    } else if (expected.type() == typeid(unsigned long long)) {
        equal = expected.get<unsigned long long>() == actual.get<unsigned long long>();
    } else if (expected.type() == typeid(unsigned int)) {
        equal = expected.get<unsigned int>() == actual.get<unsigned int>();
    } else if (expected.type() == typeid(unsigned short)) {
        equal = expected.get<unsigned short>() == actual.get<unsigned short>();
    } else if (expected.type() == typeid(unsigned char)) {
        equal = expected.get<unsigned char>() == actual.get<unsigned char>();
    } else if (expected.type() == typeid(bool)) {
        equal = expected.get<bool>() == actual.get<bool>();
    } else if (expected.type() == typeid(double)) {
        equal = bits_of(expected.get<double>()) == bits_of(actual.get<double>());
    }
    if (!equal) {
        return testing::AssertionFailure() << path << ": another value";
    }
    return testing::AssertionSuccess();
}

table decoded(const table& fields) {
    buf message(fields);
    return to_table(message.native()->head);
}

std::vector<unsigned char> encoded(const table& fields) {
    buf message(fields);
    const auto* data = reinterpret_cast<const unsigned char*>(message.native()->head);
    return std::vector<unsigned char>(data, data + blob_raw_len(message.native()->head));
}

table every_kind() {
    table fields;
    fields.emplace("bytes", bytes{0, 1, 0xfe, 0xff});
    fields.emplace("no bytes", bytes());
    fields.emplace("text", "h\xc3\xa9llo, w\xc3\xb6rld");
    fields.emplace("no text", "");
    fields.emplace("u64", std::numeric_limits<unsigned long long>::max());
    fields.emplace("u64 zero", 0ull);
    fields.emplace("u32", 0x89abcdefu);
    fields.emplace("u16", static_cast<unsigned short>(0xfedc));
    fields.emplace("u8", static_cast<unsigned char>(0x80));
    fields.emplace("double", 3.141592653589793);
    fields.emplace("array", array{attr(1u), attr("two"), attr(3.0), attr(bytes{4})});
    fields.emplace("empty array", array());
    fields.emplace("empty table", table());
    return fields;
}

TEST(blob_roundtrip, every_value_kind_comes_back_as_it_went_out) {
    const table fields = every_kind();
    EXPECT_TRUE(same(fields, decoded(fields), "message"));
}

TEST(blob_roundtrip, bool_comes_back_as_unsigned_char_unless_the_policy_names_bool) {
    table fields;
    fields.emplace("yes", true);
    fields.emplace("no", false);
    const table loose = decoded(fields);
    EXPECT_EQ(loose.find("yes")->second.get<unsigned char>(), 1);
    EXPECT_EQ(loose.find("no")->second.get<unsigned char>(), 0);

    buf message(fields);
    const table typed =
        to_table(message.native()->head, policy{{"yes", typeid(bool)}, {"no", typeid(bool)}});
    EXPECT_TRUE(same(fields, typed, "message"));
}

TEST(blob_roundtrip, signed_values_come_back_with_their_bits) {
    table fields;
    fields.emplace("int", -1);
    fields.emplace("short", static_cast<short>(-300));
    fields.emplace("char", static_cast<signed char>(-128));
    fields.emplace("long long", std::numeric_limits<long long>::min());
    table back = decoded(fields);
    EXPECT_EQ(back.find("int")->second.get<int>(), -1);
    EXPECT_EQ(back.find("short")->second.get<short>(), -300);
    EXPECT_EQ(back.find("char")->second.get<signed char>(), -128);
    EXPECT_EQ(back.find("long long")->second.get<long long>(),
              std::numeric_limits<long long>::min());
}

TEST(blob_roundtrip, doubles_keep_every_bit) {
    const std::vector<double> numbers = {
        0.0,
        -0.0,
        1.0 / 3.0,
        std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN(),
        std::numeric_limits<double>::denorm_min(),
        std::numeric_limits<double>::max(),
        std::numeric_limits<double>::lowest(),
    };
    table fields;
    for (double number : numbers) {
        fields.emplace("d", number);
    }
    const table back = decoded(fields);
    EXPECT_TRUE(same(fields, back, "message"));
    EXPECT_TRUE(std::signbit(std::next(back.begin())->second.get<double>()));
}

TEST(blob_roundtrip, equal_keys_keep_their_order_at_every_depth) {
    table inner;
    inner.emplace("k", 3u);
    inner.emplace("k", "three");
    inner.emplace("k", 1u);
    table fields;
    fields.emplace("k", inner);
    fields.emplace("k", 2u);
    fields.emplace("k", inner);
    EXPECT_TRUE(same(fields, decoded(fields), "message"));
}

TEST(blob_roundtrip, tables_in_arrays_in_tables) {
    table leaf;
    leaf.emplace("s", "leaf");
    leaf.emplace("n", 7u);
    table middle;
    middle.emplace("list", array{attr(leaf), attr(array{attr(leaf), attr(array())}), attr(5u)});
    table fields;
    fields.emplace("top", middle);
    fields.emplace("arrays", array{attr(array{attr(array{attr(1u)})})});
    EXPECT_TRUE(same(fields, decoded(fields), "message"));
}

TEST(blob_roundtrip, deep_nesting) {
    attr value(42u);
    for (int depth = 0; depth < 100; ++depth) {
        if (depth % 2 == 0) {
            value = attr(array{value});
        } else {
            table level;
            level.emplace("level" + std::to_string(depth), value);
            value = attr(level);
        }
    }
    table fields;
    fields.emplace("deep", value);
    EXPECT_TRUE(same(fields, decoded(fields), "message"));
}

TEST(blob_roundtrip, long_names_and_values) {
    table fields;
    fields.emplace(std::string(300, 'n'), std::string(70000, 'v'));
    bytes large(100000);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<unsigned char>(i * 7);
    }
    fields.emplace("", large);
    EXPECT_TRUE(same(fields, decoded(fields), "message"));
}

TEST(blob_roundtrip, a_policy_over_every_kind) {
    const table fields = every_kind();
    policy wanted;
    for (const auto& field : fields) {
        wanted.emplace(field.first, field.second.type());
    }
    buf message(fields);
    EXPECT_TRUE(same(fields, to_table(message.native()->head, wanted), "message"));
}

TEST(blob_roundtrip, a_decoded_message_encodes_to_the_same_bytes) {
    const table fields = every_kind();
    EXPECT_EQ(encoded(decoded(fields)), encoded(fields));
}

} // namespace
