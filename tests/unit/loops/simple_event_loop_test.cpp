#include "event_loop_conformance.h"

#include <orvix/loops/simple_event_loop.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using orvix::loops::simple_event_loop;

class simple_driver {
public:
    orvix::utils::event_loop& loop() { return *simple; }

    // Everything due now runs well within this; it only bounds the run.
    void run_due() { simple->run_for(100ms); }

    std::future<void> start() {
        return std::async(std::launch::async, [loop = simple] { loop->run(); });
    }

    // Queued, so that what was posted before still runs.
    void finish() {
        simple->post([loop = simple] { loop->stop(); });
    }

private:
    std::shared_ptr<simple_event_loop> simple = simple_event_loop::create();
};

INSTANTIATE_TYPED_TEST_SUITE_P(simple, event_loop_conformance, simple_driver);

TEST(simple_event_loop, stop_ends_the_run_and_later_tasks_wait_for_the_next) {
    const auto loop = simple_event_loop::create();
    std::string order;
    loop->post([&] {
        order += 'a';
        loop->post([&] { order += 'c'; });
        loop->stop();
    });
    loop->post([&] { order += 'b'; });
    loop->run();
    EXPECT_EQ(order, "a");

    loop->stop(); // while not running: ends the next run at once
    loop->run();
    EXPECT_EQ(order, "a");
    loop->run_for(0ms);
    EXPECT_EQ(order, "abc");
}

TEST(simple_event_loop, stop_from_another_thread_wakes_an_idle_loop) {
    const auto loop = simple_event_loop::create();
    std::promise<void> idle;
    loop->post([&] { idle.set_value(); });
    auto runner = std::async(std::launch::async, [&] { loop->run(); });
    idle.get_future().wait();
    std::thread([&] { loop->stop(); }).join();
    EXPECT_EQ(runner.wait_for(30s), std::future_status::ready);
}

TEST(simple_event_loop, run_for_returns_when_the_time_is_up_even_when_never_idle) {
    const auto loop = simple_event_loop::create();
    std::function<void()> again = [&] { loop->post(again); };
    loop->post(again);
    loop->run_for(10ms);
}

TEST(simple_event_loop, a_task_exception_leaves_run_and_the_loop_runs_again) {
    const auto loop = simple_event_loop::create();
    bool later = false;
    loop->post([&] {
        EXPECT_THROW(loop->run(), std::logic_error);
        throw std::runtime_error("boom");
    });
    loop->post([&] { later = true; });
    EXPECT_THROW(loop->run(), std::runtime_error);
    EXPECT_FALSE(later);
    loop->run_for(0ms);
    EXPECT_TRUE(later);
}

TEST(simple_event_loop, dropping_the_last_reference_from_a_task_ends_the_run) {
    auto owner = simple_event_loop::create();
    const auto raw = owner.get();
    bool after = false;
    owner->post([&] { owner.reset(); });
    owner->post([&] { after = true; });
    raw->run();
    EXPECT_FALSE(after);
}

TEST(simple_event_loop, timers_due_together_fire_in_arming_order) {
    const auto loop = simple_event_loop::create();
    std::string fired;
    const auto a = loop->make_timer(), b = loop->make_timer();
    a->wait([&] { fired += 'a'; });
    b->wait([&] { fired += 'b'; });
    b->expires_after(0s);
    a->expires_after(0s);
    loop->run_for(100ms);
    EXPECT_EQ(fired, "ba");
}

TEST(simple_event_loop, a_timer_outliving_its_loop_does_nothing) {
    auto loop = simple_event_loop::create();
    const auto t = loop->make_timer();
    t->wait([] { FAIL() << "a timer of a destroyed loop fired"; });
    t->expires_after(0s);
    loop.reset();
    t->expires_after(0s);
    t->stop();
}

} // namespace
