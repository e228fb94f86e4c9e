#include <orvix/blob/attr.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;
using bytes = std::vector<unsigned char>;

std::string cast_error(const std::type_info& from, const std::type_info& to) {
    const auto name = [](const std::type_info& t) {
        return std::string(t.name()[0] == '*' ? t.name() + 1 : t.name());
    };
    return "orvix::blob::attr::get can't cast from " + name(from) + " to " + name(to);
}

template <typename T>
std::string get_error(const attr& a) {
    try {
        a.get<T>();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

static_assert(std::is_constructible<attr, const char (&)[3]>::value, "");
static_assert(std::is_constructible<attr, const std::string&>::value, "");
static_assert(!std::is_constructible<attr, long>::value, "");
static_assert(!std::is_constructible<attr, float>::value, "");
static_assert(!std::is_constructible<attr, char>::value, "");
static_assert(!std::is_constructible<attr, std::nullptr_t>::value, "");

TEST(attr, empty_attr_reads_as_void) {
    attr a;
    EXPECT_FALSE(a.has_value());
    EXPECT_EQ(a.type(), typeid(void));
    EXPECT_EQ(get_error<unsigned int>(a), cast_error(typeid(void), typeid(unsigned int)));
    EXPECT_THROW(a.get<table>(), std::runtime_error);
    a.reset();
    EXPECT_FALSE(a.has_value());
}

TEST(attr, each_argument_type_is_stored_as_its_kind) {
    const std::vector<std::pair<attr, std::type_index>> cases{
        {attr(static_cast<signed char>(-1)), typeid(unsigned char)},
        {attr(static_cast<short>(-1)), typeid(unsigned short)},
        {attr(-1), typeid(unsigned int)},
        {attr(-1ll), typeid(unsigned long long)},
        {attr(1ull), typeid(unsigned long long)},
        {attr(true), typeid(bool)},
        {attr(0.5), typeid(double)},
        {attr("text"), typeid(std::string)},
        {attr(bytes{1, 2}), typeid(bytes)},
        {attr(array{}), typeid(array)},
        {attr(table{}), typeid(table)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.first.type(), c.second) << c.second.name();
    }
}

TEST(attr, signed_values_keep_their_bits_in_unsigned_storage) {
    attr a;
    a.set<int>(-1);
    EXPECT_EQ(a.type(), typeid(unsigned int));
    EXPECT_EQ(a.get<unsigned int>(), 4294967295u);
    a.get<int>() = -3;
    EXPECT_EQ(a.get<unsigned int>(), 4294967293u);

    a.set<unsigned char>(200);
    EXPECT_EQ(a.get<signed char>(), -56);

    const long long big = -5;
    a.set<long long>(big);
    EXPECT_EQ(a.get<unsigned long long>(), 18446744073709551611ull);
}

TEST(attr, kinds_are_never_converted) {
    const attr i(5);
    EXPECT_EQ(get_error<long long>(i),
              cast_error(typeid(unsigned int), typeid(unsigned long long)));
    EXPECT_EQ(get_error<short>(i), cast_error(typeid(unsigned int), typeid(unsigned short)));
    EXPECT_THROW(i.get<double>(), std::runtime_error);
    EXPECT_THROW(attr(true).get<unsigned char>(), std::runtime_error);
    EXPECT_THROW(attr(table{}).get<array>(), std::runtime_error);
    EXPECT_EQ(i.get<unsigned int>(), 5u);
}

TEST(attr, strings_and_c_strings) {
    attr a("text");
    EXPECT_EQ(a.get<std::string>(), "text");
    a.set<char>("more");
    EXPECT_EQ(a.get<std::string>(), "more");
    a.set(2.5);
    EXPECT_THROW(a.set(static_cast<const char*>(nullptr)), std::logic_error);
    EXPECT_EQ(a.get<double>(), 2.5);
}

TEST(attr, moving_leaves_the_source_empty) {
    attr a("value");
    attr b(std::move(a));
    EXPECT_FALSE(a.has_value());
    attr c(1);
    c = std::move(b);
    EXPECT_FALSE(b.has_value());
    EXPECT_EQ(b.type(), typeid(void));
    attr& alias = c;
    c = std::move(alias);
    EXPECT_EQ(c.get<std::string>(), "value");
}

TEST(attr, copies_own_the_whole_nested_tree) {
    const table inner{{"list", attr(array{attr("x"), attr(2.0)})}};
    attr source(table{{"inner", attr(inner)}, {"dup", attr(1)}, {"dup", attr(2)}});
    attr copy(source);
    EXPECT_EQ(copy.type(), typeid(table));

    table changed = copy.get<table>();
    changed.erase("dup");
    copy = attr(changed);
    ASSERT_EQ(source.get<table>().count("dup"), 2u);
    const auto dup = source.get<table>().find("dup");
    EXPECT_EQ(dup->second.get<unsigned int>(), 1u);
    EXPECT_EQ(std::next(dup)->second.get<unsigned int>(), 2u);

    const auto& list = copy.get<table>().find("inner")->second.get<table>().begin()->second;
    EXPECT_EQ(list.get<array>().front().get<std::string>(), "x");
    EXPECT_EQ(list.get<array>().back().get<double>(), 2.0);
}

TEST(attr, assignment_from_self_or_from_own_child) {
    attr a(array{attr("child"), attr(9)});
    a = static_cast<const attr&>(a);
    EXPECT_EQ(a.get<array>().size(), 2u);
    a = a.get<array>().front();
    EXPECT_EQ(a.get<std::string>(), "child");
}

TEST(attr, swap_moves_values_without_copying) {
    attr empty;
    attr full(bytes{7});
    const bytes* stored = &full.get<bytes>();
    full.swap(empty);
    EXPECT_FALSE(full.has_value());
    EXPECT_EQ(&empty.get<bytes>(), stored);
}

} // namespace
