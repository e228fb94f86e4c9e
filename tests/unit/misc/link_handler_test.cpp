#include <orvix/misc/link_handler.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>

namespace {

using orvix::misc::callable_traits;
using orvix::misc::is_callable;
using orvix::misc::tie_handler;
using orvix::misc::linkhandlerdetail::wrap_handler;
using ec_handler = std::function<void(const std::error_code&)>;

using free_function = int(double, const std::string&);
struct const_call {
    bool operator()(int) const { return true; }
};
struct mutable_call {
    void operator()(const std::error_code&) {}
};
struct overloaded_call {
    void operator()(int) const {}
    void operator()(double) const {}
};

static_assert(std::is_same<callable_traits<free_function*>::type,
                           std::function<int(double, const std::string&)>>::value,
              "");
static_assert(
    std::is_same<callable_traits<const const_call&>::type, std::function<bool(int)>>::value, "");
static_assert(std::is_same<callable_traits<mutable_call>::type, ec_handler>::value, "");
static_assert(is_callable<ec_handler, void>::value && is_callable<const_call, bool>::value, "");
static_assert(!is_callable<const_call, void>::value && !is_callable<overloaded_call, void>::value &&
                  !is_callable<int, void>::value,
              "");

TEST(wrap_handler, a_one_shot_ends_with_its_call_a_repeating_one_with_its_release) {
    for (const bool once : {true, false}) {
        int calls = 0;
        auto [call, token, lnk] =
            wrap_handler(ec_handler([&](const std::error_code&) { ++calls; }), once);
        EXPECT_TRUE(lnk.active());
        call(std::error_code());
        EXPECT_EQ(lnk.active(), !once);
        if (!once) {
            call(std::error_code());
            lnk.release();
        }
        EXPECT_TRUE(token.expired());
        EXPECT_THROW(call(std::error_code()), std::bad_function_call);
        EXPECT_EQ(calls, once ? 1 : 2);
    }
}

TEST(wrap_handler, dropping_every_copy_of_the_callable_ends_the_registration) {
    const auto captured = std::make_shared<int>(0);
    auto wrapped = wrap_handler(ec_handler([captured](const std::error_code&) {}), false);
    const auto token = std::get<1>(wrapped);
    const auto lnk = std::get<2>(wrapped);
    {
        const auto copy = std::get<0>(wrapped);
        std::get<0>(wrapped) = nullptr;
        EXPECT_TRUE(lnk.active());
    }
    EXPECT_FALSE(lnk.active());
    EXPECT_TRUE(token.expired());
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(wrap_handler, handler_may_release_its_own_link_while_running) {
    orvix::utils::link self;
    bool released = false;
    auto wrapped = wrap_handler(ec_handler([&](const std::error_code&) {
                                    self.release();
                                    released = !self.active();
                                }),
                                false);
    self = std::get<2>(wrapped);
    std::get<0>(wrapped)(std::error_code());
    EXPECT_TRUE(released);
}

TEST(tie_handler, forwards_only_while_every_object_lives) {
    auto owner = std::make_shared<int>(0);
    std::shared_ptr<void> other = std::make_shared<char>(0);
    int sum = 0;
    std::function<void(int)> tied = tie_handler(
        std::function<void(int)>([&sum](int v) { sum += v; }), other, std::weak_ptr<int>(owner));
    tied(2);
    other.reset();
    tied(3);
    other = std::make_shared<char>(0);
    tied(4);
    EXPECT_EQ(sum, 2);

    // The signature is kept, and an empty handler throws while it is alive.
    static_assert(std::is_same<callable_traits<decltype(tie_handler(mutable_call(), owner))>::type,
                               ec_handler>::value,
                  "");
    auto empty = tie_handler(ec_handler(), owner);
    EXPECT_THROW(empty(std::error_code()), std::bad_function_call);
    owner.reset();
    EXPECT_NO_THROW(empty(std::error_code()));
}

TEST(link_handler, the_callable_is_inert_after_release_or_its_one_call_and_dropping_it_releases) {
    int calls = 0;
    auto [repeating, lnk] =
        orvix::misc::link_handler(ec_handler([&](const std::error_code&) { ++calls; }), false);
    repeating(std::error_code());
    lnk.release();
    EXPECT_NO_THROW(repeating(std::error_code()));

    auto [once, once_lnk] =
        orvix::misc::link_handler([&](const std::error_code&) { ++calls; }, true);
    static_assert(std::is_same<decltype(once), ec_handler>::value, "");
    once(std::error_code());
    EXPECT_FALSE(once_lnk.active());
    EXPECT_NO_THROW(once(std::error_code()));
    EXPECT_EQ(calls, 2);

    auto dropped = orvix::misc::link_handler(ec_handler([](const std::error_code&) {}), false);
    EXPECT_TRUE(dropped.second.active());
    dropped.first = nullptr;
    EXPECT_FALSE(dropped.second.active());
}

} // namespace
