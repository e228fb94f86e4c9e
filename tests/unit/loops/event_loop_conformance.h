#pragma once

#include <orvix/utils/event_loop.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// What every event loop the library ships must do, as the client relies on it. A driver
// gives access to one loop: loop(), run_due() (runs what is due now, on this thread),
// start() (runs it on a thread of its own) and finish() (makes that run end).
template <typename Driver>
struct event_loop_conformance : ::testing::Test {
    Driver driver;
    std::string fired;

    std::shared_ptr<orvix::utils::timer> make(char name) {
        auto t = driver.loop().make_timer();
        t->wait([this, name] { fired += name; });
        return t;
    }
};

TYPED_TEST_SUITE_P(event_loop_conformance);

TYPED_TEST_P(event_loop_conformance, posts_from_many_threads_run_on_its_thread_in_posting_order) {
    constexpr int posters = 8;
    constexpr int per_poster = 2000;
    auto& loop = this->driver.loop();
    std::promise<std::thread::id> loop_id;
    loop.post([&] { loop_id.set_value(std::this_thread::get_id()); });
    auto runner = this->driver.start();
    const auto loop_thread = loop_id.get_future().get();

    std::vector<std::vector<int>> seen(posters);
    bool elsewhere = false;
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < per_poster; ++i) {
                loop.post([&, p, i] {
                    seen[p].push_back(i);
                    elsewhere |= std::this_thread::get_id() != loop_thread;
                });
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    this->driver.finish();
    ASSERT_EQ(runner.wait_for(std::chrono::seconds(30)), std::future_status::ready);

    EXPECT_FALSE(elsewhere);
    for (const auto& s : seen) {
        ASSERT_EQ(s.size(), static_cast<std::size_t>(per_poster));
        for (int i = 0; i < per_poster; ++i) {
            ASSERT_EQ(s[i], i);
        }
    }
}

TYPED_TEST_P(event_loop_conformance, a_timer_fires_once_per_arming_on_the_loop_thread) {
    const auto t = this->driver.loop().make_timer();
    std::thread::id where;
    t->wait([&] {
        where = std::this_thread::get_id();
        if ((this->fired += 'x').size() < 3) {
            t->expires_after(std::chrono::seconds(0));
        }
    });
    t->expires_after(std::chrono::seconds(0));
    std::thread runner([&] { this->driver.run_due(); });
    const auto runner_id = runner.get_id();
    runner.join();
    EXPECT_EQ(this->fired, "xxx");
    EXPECT_EQ(where, runner_id);
}

TYPED_TEST_P(event_loop_conformance, a_stopped_or_rearmed_timer_fires_for_its_latest_arming_only) {
    const auto t = this->make('t');
    t->expires_after(std::chrono::seconds(0));
    t->stop();
    this->driver.run_due();
    EXPECT_EQ(this->fired, "");

    t->expires_after(std::chrono::seconds(0));
    t->wait([&] { this->fired += 'n'; });
    t->expires_after(std::chrono::seconds(0));
    this->driver.run_due();
    EXPECT_EQ(this->fired, "n");
}

// The probe, armed first, fires first; by then the loop has the other expiries in hand
// too. Stopping or destroying their timers must still win.
TYPED_TEST_P(event_loop_conformance, a_stopped_or_destroyed_timer_never_fires_even_when_due) {
    for (int round = 0; round < 20; ++round) {
        this->fired.clear();
        const auto probe = this->driver.loop().make_timer();
        const auto stopped = this->make('s');
        auto destroyed = this->make('d');
        auto dropped = this->make('x');
        probe->wait([&] {
            this->fired += 'p';
            stopped->stop();
            destroyed.reset();
        });
        for (const auto& t : {probe, stopped, destroyed, dropped}) {
            t->expires_after(std::chrono::seconds(0));
        }
        dropped.reset();
        this->driver.run_due();
        EXPECT_EQ(this->fired, "p") << "round " << round;
    }
}

TYPED_TEST_P(event_loop_conformance, a_function_may_destroy_its_own_timer) {
    auto t = this->driver.loop().make_timer();
    t->wait([&, witness = std::make_shared<char>('w')] {
        t.reset();
        this->fired += *witness;
    });
    t->expires_after(std::chrono::seconds(0));
    this->driver.run_due();
    EXPECT_EQ(this->fired, "w");
}

TYPED_TEST_P(event_loop_conformance, other_threads_arm_and_stop_timers_while_it_runs) {
    auto& loop = this->driver.loop();
    const auto victim = this->make('v');
    const auto sentinel = loop.make_timer();
    sentinel->wait([&] { this->driver.finish(); });
    std::promise<void> release, blocked, drained;
    loop.post([&] {
        blocked.set_value();
        release.get_future().wait();
    });
    auto runner = this->driver.start();
    blocked.get_future().wait();
    std::thread([&] {
        victim->expires_after(std::chrono::seconds(0));
        victim->stop();
    }).join();
    loop.post([&] { drained.set_value(); });
    release.set_value();
    drained.get_future().wait();

    // Wakes the idle loop; the victim, armed earlier, would have fired before it.
    std::thread([&] { sentinel->expires_after(std::chrono::seconds(0)); }).join();
    ASSERT_EQ(runner.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(this->fired, "");
}

// A timer that counted whole seconds would expire with the one armed before it.
TYPED_TEST_P(event_loop_conformance, a_timer_counts_milliseconds_and_never_fires_early) {
    using clock = std::chrono::steady_clock;
    auto& loop = this->driver.loop();
    const auto whole = loop.make_timer();
    const auto brief = loop.make_timer();
    clock::duration waited{};
    const auto start = clock::now();
    whole->wait([&] {
        this->fired += 's';
        this->driver.finish();
    });
    brief->wait([&] {
        waited = clock::now() - start;
        this->fired += 'm';
    });
    whole->expires_after(std::chrono::seconds(1));
    brief->expires_after(std::chrono::milliseconds(30));
    auto runner = this->driver.start();
    ASSERT_EQ(runner.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(this->fired, "ms");
    EXPECT_GE(waited, std::chrono::milliseconds(30));
}

REGISTER_TYPED_TEST_SUITE_P(event_loop_conformance,
                            posts_from_many_threads_run_on_its_thread_in_posting_order,
                            a_timer_fires_once_per_arming_on_the_loop_thread,
                            a_stopped_or_rearmed_timer_fires_for_its_latest_arming_only,
                            a_stopped_or_destroyed_timer_never_fires_even_when_due,
                            a_function_may_destroy_its_own_timer,
                            other_threads_arm_and_stop_timers_while_it_runs,
                            a_timer_counts_milliseconds_and_never_fires_early);
