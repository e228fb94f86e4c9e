#pragma once

#include <orvix/utils/event_loop.h>

#include <chrono>
#include <functional>
#include <memory>

namespace orvix {
namespace loops {
namespace detail {
class simple_loop_scheduler;
} // namespace detail

/// A minimal event loop for programs that have none of their own: tasks and timers run
/// on whichever thread calls run() or run_for().
///
/// post() and stop() may be called from any thread. Timers may be used from any thread
/// too; a timer stopped or destroyed before the loop has taken up its expiry never runs
/// its function. An exception thrown by a task or a timer function leaves run() or
/// run_for() and reaches its caller; the loop can be run again afterwards.
class simple_event_loop final : public utils::event_loop {
public:
    /// The client holds its event loop weakly, so the loop lives in a shared_ptr.
    static std::shared_ptr<simple_event_loop> create();

    simple_event_loop(const simple_event_loop&) = delete;
    simple_event_loop& operator=(const simple_event_loop&) = delete;
    /// Ends a run in progress, as stop() does.
    ~simple_event_loop() override;

    void post(std::function<void()> task) override;
    std::shared_ptr<utils::timer> make_timer() override;

    /// Runs tasks and timers on the calling thread until stop(). Throws std::logic_error
    /// when the loop is already running.
    void run();

    /// Like run(), but also returns once `duration` has passed.
    void run_for(std::chrono::milliseconds duration);

    /// Makes the running run() or run_for() return after the task or timer function in
    /// progress, or the next one return at once if none is running.
    void stop();

private:
    simple_event_loop();

    std::shared_ptr<detail::simple_loop_scheduler> scheduler;
};

} // namespace loops
} // namespace orvix
