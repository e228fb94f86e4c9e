#include <orvix/utils/event_loop.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

// A timer written before the millisecond overload existed: it counts whole seconds.
class seconds_timer : public orvix::utils::timer {
public:
    void wait(std::function<void()>) override {}
    void expires_after(std::chrono::seconds delay) override { armed.push_back(delay); }
    void stop() override {}

    std::vector<std::chrono::seconds> armed;
};

// Records which overload each call reached.
class recording_timer final : public orvix::utils::timer {
public:
    using timer::expires_after;

    void wait(std::function<void()>) override {}
    void expires_after(std::chrono::seconds delay) override {
        calls.push_back(std::to_string(delay.count()) + "s");
    }
    void expires_after(std::chrono::milliseconds delay) override {
        calls.push_back(std::to_string(delay.count()) + "ms");
    }
    void stop() override {}

    std::vector<std::string> calls;
};

TEST(timer, a_seconds_timer_rounds_milliseconds_up_so_it_never_expires_early) {
    const struct {
        std::chrono::milliseconds delay;
        std::chrono::seconds armed;
    } cases[] = {{0ms, 0s}, {1ms, 1s}, {500ms, 1s}, {1000ms, 1s}, {1001ms, 2s}, {-5ms, 0s}};
    for (const auto& c : cases) {
        seconds_timer t;
        static_cast<orvix::utils::timer&>(t).expires_after(c.delay);
        EXPECT_EQ(t.armed, std::vector<std::chrono::seconds>{c.armed}) << c.delay.count();
    }
}

TEST(timer, each_duration_reaches_the_overload_that_keeps_it_exact) {
    recording_timer t;
    orvix::utils::timer& base = t;
    const std::function<void()> calls[] = {
        [&] { t.expires_after(std::chrono::seconds(1)); },
        [&] { t.expires_after(2s); },
        [&] { t.expires_after(500ms); },
        [&] { t.expires_after(std::chrono::minutes(1)); },
        [&] { t.expires_after(std::chrono::duration<int>(3)); },
        [&] { base.expires_after(4s); },
        [&] { base.expires_after(250ms); },
        [&] { base.expires_after(std::chrono::hours(1)); },
    };
    for (const auto& call : calls) {
        call();
    }
    EXPECT_EQ(t.calls,
              (std::vector<std::string>{"1s", "2s", "500ms", "60s", "3s", "4s", "250ms", "3600s"}));
}

} // namespace
