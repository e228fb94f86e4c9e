#pragma once

#include <orvix/loops/simple_event_loop.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace orvix {
namespace loops {
namespace detail {

/// The queue of tasks and the schedule of armed timers behind simple_event_loop, with
/// the loop that runs them. Timers refer to it weakly, so they may outlive the loop.
class simple_loop_scheduler {
public:
    using clock = std::chrono::steady_clock;

    struct timer_slot;

    /// Armed timers by deadline; the arming number orders equal deadlines by arming.
    using schedule_map = std::map<std::pair<clock::time_point, std::uint64_t>, timer_slot*>;

    /// What the scheduler keeps of one timer; the timer owns it.
    struct timer_slot {
        // Shared so that the loop runs a copy while wait() may replace the original.
        std::shared_ptr<const std::function<void()>> handler;
        std::optional<schedule_map::iterator> position;
    };

    void post(std::function<void()> task);

    void set_handler(timer_slot& slot, std::function<void()> handler);
    void arm(timer_slot& slot, clock::duration delay);
    void disarm(timer_slot& slot);

    /// Runs tasks and due timers until stop(), or until `end` when given.
    void run(std::optional<clock::time_point> end);
    void stop();

private:
    /// Runs the tasks queued before the pass began, then the timers due by then.
    /// Returns false as soon as a stop was requested.
    bool run_pass(std::unique_lock<std::mutex>& lock);
    void erase(timer_slot& slot);

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    schedule_map schedule;
    std::uint64_t armings = 0;
    bool stop_requested = false;
    bool running = false;
};

} // namespace detail
} // namespace loops
} // namespace orvix
