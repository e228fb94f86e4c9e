#include <orvix/misc/signal.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using int_signal = orvix::misc::signal<void, int>;

void emit(int_signal& sig, int value) {
    for (const auto& subscriber : sig.subscribers()) {
        (*subscriber)(value);
    }
}

TEST(signal, subscribers_in_order_and_release_removes_one) {
    std::vector<std::string> calls;
    int_signal sig;
    auto first = sig.connect([&](int v) { calls.push_back("first " + std::to_string(v)); });
    const auto second = sig.connect([&](int v) { calls.push_back("second " + std::to_string(v)); });
    emit(sig, 1);
    first.release();
    EXPECT_FALSE(first.active());
    EXPECT_TRUE(second.active());
    EXPECT_NO_THROW(first.release());
    emit(sig, 2);
    EXPECT_EQ(calls, (std::vector<std::string>{"first 1", "second 1", "second 2"}));
}

TEST(signal, list_holds_the_only_reference_to_a_copy_of_the_handler) {
    const auto token = std::make_shared<int>(0);
    int_signal sig;
    auto l = sig.connect([token](int) {});
    EXPECT_EQ(token.use_count(), 2);
    EXPECT_EQ(sig.subscribers().front().use_count(), 1);
    l.release();
    EXPECT_EQ(token.use_count(), 1);
}

TEST(signal, release_during_emission_fails_and_a_retry_is_harmless) {
    int_signal sig;
    auto l = sig.connect([](int) {});
    const auto other = sig.connect([](int) {});
    {
        const auto in_emission = sig.subscribers().front();
        EXPECT_THROW(l.release(), std::logic_error);
        EXPECT_THROW(l.release(), std::logic_error);
        EXPECT_EQ(sig.subscribers().size(), 1u);
    }
    EXPECT_FALSE(l.active());
    EXPECT_TRUE(other.active());
}

TEST(signal, links_outliving_the_signal_are_inactive) {
    orvix::utils::link l;
    {
        orvix::misc::signal<int, int, int> sig;
        l = sig.connect([](int a, int b) { return a * b; });
        EXPECT_EQ((*sig.subscribers().front())(6, 7), 42);
    }
    EXPECT_FALSE(l.active());
    EXPECT_NO_THROW(l.release());
}

} // namespace
