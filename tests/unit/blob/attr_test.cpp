#include <orvix/blob/attr.h>

#include <orvix_testing/thrown.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
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
    return orvix_testing::what_thrown<std::runtime_error>([&] { a.get<T>(); });
}

static_assert(std::is_constructible<attr, const char (&)[3]>::value, "");
static_assert(std::is_constructible<attr, const std::string&>::value, "");
static_assert(!std::is_constructible<attr, long>::value, "");
static_assert(!std::is_constructible<attr, float>::value, "");
static_assert(!std::is_constructible<attr, char>::value, "");
static_assert(!std::is_constructible<attr, std::nullptr_t>::value, "");

TEST(attr, kinds_are_never_converted) {
    EXPECT_EQ(get_error<unsigned int>(attr()), cast_error(typeid(void), typeid(unsigned int)));
    const attr i(5);
    EXPECT_EQ(get_error<long long>(i),
              cast_error(typeid(unsigned int), typeid(unsigned long long)));
    EXPECT_EQ(get_error<short>(i), cast_error(typeid(unsigned int), typeid(unsigned short)));
    EXPECT_THROW(i.get<double>(), std::runtime_error);
    EXPECT_THROW(attr(true).get<unsigned char>(), std::runtime_error);
    EXPECT_THROW(attr(table{}).get<array>(), std::runtime_error);
    EXPECT_EQ(i.get<unsigned int>(), 5u);
}

TEST(attr, signed_values_keep_their_bits_in_unsigned_storage) {
    attr a;
    a.set<int>(-1);
    EXPECT_EQ(a.get<unsigned int>(), 4294967295u);
    a.get<int>() = -3;
    EXPECT_EQ(a.get<unsigned int>(), 4294967293u);
    a.set<unsigned char>(200);
    EXPECT_EQ(a.get<signed char>(), -56);
    const long long big = -5;
    a.set<long long>(big);
    EXPECT_EQ(a.get<unsigned long long>(), 18446744073709551611ull);
}

TEST(attr, a_failed_set_keeps_the_previous_value) {
    attr a("text");
    a.set<char>("more");
    EXPECT_EQ(a.get<std::string>(), "more");
    a.set(2.5);
    EXPECT_THROW(a.set(static_cast<const char*>(nullptr)), std::logic_error);
    EXPECT_EQ(a.get<double>(), 2.5);
}

TEST(attr, moves_and_swaps_leave_the_source_empty_without_copying) {
    attr a("value");
    attr b(std::move(a));
    EXPECT_FALSE(a.has_value());
    attr c(1);
    c = std::move(b);
    EXPECT_EQ(b.type(), typeid(void));
    attr& alias = c;
    c = std::move(alias);
    EXPECT_EQ(c.get<std::string>(), "value");

    attr empty;
    attr full(bytes{7});
    const bytes* stored = &full.get<bytes>();
    full.swap(empty);
    EXPECT_FALSE(full.has_value());
    EXPECT_EQ(&empty.get<bytes>(), stored);
    empty.reset();
    EXPECT_FALSE(empty.has_value());
}

TEST(attr, copies_own_the_whole_nested_tree) {
    const table inner{{"list", array{"x", 2.0}}};
    attr source(table{{"inner", inner}, {"dup", 1}, {"dup", 2}});
    attr copy(source);
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

    // Assigning from itself or from its own child.
    attr a(array{"child", 9});
    a = static_cast<const attr&>(a);
    EXPECT_EQ(a.get<array>().size(), 2u);
    a = a.get<array>().front();
    EXPECT_EQ(a.get<std::string>(), "child");
}

} // namespace
