#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>
#include <orvix/uloop.h>

#include <orvix_testing/thrown.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// After the standard headers: libubox defines macros that some of them use as names.
#include "client/client_impl.h"

namespace {

// Counts what the client posts to its event loop.
class counting_loop : public orvix::utils::event_loop {
public:
    void post(std::function<void()> task) override {
        ++posts;
        inner->post(std::move(task));
    }
    std::shared_ptr<orvix::utils::timer> make_timer() override { return inner->make_timer(); }

    std::shared_ptr<orvix::loops::simple_event_loop> inner =
        orvix::loops::simple_event_loop::create();
    std::atomic<int> posts{0};
};

class client_environment : public ::testing::Environment {
public:
    void SetUp() override {
        // Tried before the instance exists; a failed first call leaves none.
        auto gone = std::make_shared<counting_loop>();
        std::weak_ptr<orvix::utils::event_loop> expired = gone;
        gone.reset();
        first_with_expired = orvix_testing::what_thrown<std::runtime_error>(
            [&] { orvix::client::get_instance(expired); });
        first_with_empty =
            orvix_testing::what_thrown<std::runtime_error>([] { orvix::client::get_instance({}); });
        loop = std::make_shared<counting_loop>();
        instance = &orvix::client::get_instance(loop);
    }
    void TearDown() override { instance->cancel(); }

    static std::string first_with_expired;
    static std::string first_with_empty;
    static std::shared_ptr<counting_loop> loop;
    static orvix::client* instance;
};

std::string client_environment::first_with_expired;
std::string client_environment::first_with_empty;
std::shared_ptr<counting_loop> client_environment::loop;
orvix::client* client_environment::instance = nullptr;

::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new client_environment);

orvix::client_impl& impl() {
    return orvix::client_impl::get_instance({});
}

counting_loop& loop() {
    return *client_environment::loop;
}

bool run_until(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        loop().inner->run_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Lets everything already posted to the event loop run.
void settle() {
    bool done = false;
    loop().inner->post([&done] { done = true; });
    run_until([&done] { return done; });
}

// Runs `fn` on the loop thread and waits for it there.
void on_loop_thread(const std::function<void()>& fn) {
    std::promise<void> ran;
    orvix::uloop::get_instance().post([&] {
        fn();
        ran.set_value();
    });
    ran.get_future().wait();
}

TEST(client_instance, the_first_call_needs_a_live_event_loop) {
    EXPECT_EQ(client_environment::first_with_expired, "orvix_impl::client: No event loop");
    EXPECT_EQ(client_environment::first_with_empty, "orvix_impl::client: No event loop");
}

TEST(client_instance, later_calls_reach_the_same_instance) {
    EXPECT_EQ(&orvix::client::get_instance({}), client_environment::instance);
    EXPECT_EQ(&orvix::client::get_instance(client_environment::loop), client_environment::instance);
    EXPECT_EQ(&orvix::client_impl::get_instance({}), client_environment::instance);
}

TEST(client_instance, another_live_event_loop_is_refused) {
    auto other = std::make_shared<counting_loop>();
    EXPECT_EQ(
        orvix_testing::what_thrown<std::runtime_error>([&] { orvix::client::get_instance(other); }),
        "orvix_impl::client: Instance of event loop can't be changed");
}

TEST(task_queue, tasks_queued_before_the_drain_share_one_drain_and_keep_their_order) {
    settle();
    const int before = loop().posts;
    std::vector<int> order;
    for (int i = 0; i < 10; ++i) {
        impl().schedule_task([&order, i] { order.push_back(i); });
    }
    EXPECT_EQ(loop().posts, before + 1);
    ASSERT_TRUE(run_until([&order] { return order.size() == 10; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(task_queue, a_task_queued_by_a_running_task_waits_for_the_next_drain) {
    settle();
    std::vector<std::string> events;
    impl().schedule_task([&events] {
        events.push_back("first");
        impl().schedule_task([&events] { events.push_back("queued by first"); });
    });
    impl().schedule_task([&events] { events.push_back("second"); });
    ASSERT_TRUE(run_until([&events] { return events.size() == 3; }));
    EXPECT_EQ(events, (std::vector<std::string>{"first", "second", "queued by first"}));
}

TEST(task_queue, loop_thread_tasks_wait_for_the_first_hop_to_the_loop_thread) {
    // cancel() sets the drain hold again, as construction does.
    impl().cancel();
    settle();
    const int before = loop().posts;
    std::vector<int> order;
    on_loop_thread([&order] {
        for (int i = 0; i < 3; ++i) {
            impl().post_from_uloop([&order, i] { order.push_back(i); });
        }
    });
    EXPECT_EQ(loop().posts, before);
    settle();
    EXPECT_TRUE(order.empty());

    impl().post_to_uloop([] {});
    EXPECT_EQ(loop().posts, before + 1);
    ASSERT_TRUE(run_until([&order] { return order.size() == 3; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(task_queue, tasks_of_a_cancelled_client_do_nothing) {
    settle();
    bool ran = false;
    impl().post([&ran] { ran = true; });
    impl().cancel();
    settle();
    EXPECT_FALSE(ran);
    impl().post([&ran] { ran = true; });
    settle();
    EXPECT_TRUE(ran);
}

} // namespace
