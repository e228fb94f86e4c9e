#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>

namespace orvix {
namespace utils {

/// A one-shot timer of the program's event loop. Implemented by the program (or taken
/// from the loops the library ships); the client uses one for reconnection and one per
/// invoke that has a timeout. Destroying the last reference disarms the timer.
class timer {
public:
    virtual ~timer() = default;

    /// Sets the function run on the loop's thread each time the timer expires.
    virtual void wait(std::function<void()> handler) = 0;

    /// Arms the timer to expire once after `delay`; re-arms it if it was armed, has
    /// expired or was stopped.
    virtual void expires_after(std::chrono::seconds delay) = 0;

    /// Like the seconds overload, to the millisecond. This default rounds `delay` up to
    /// whole seconds, so that timers written before it still never expire early; the
    /// loops the library ships override it. A class overriding it should also say
    /// `using timer::expires_after;` so that the other overloads stay visible.
    virtual void expires_after(std::chrono::milliseconds delay) {
        expires_after(std::chrono::ceil<std::chrono::seconds>(delay));
    }

    /// Minutes, hours and other whole-second durations convert to both overloads above;
    /// this sends them to the seconds one.
    template <typename Rep, typename Period,
              typename = std::enable_if_t<std::is_convertible<std::chrono::duration<Rep, Period>,
                                                              std::chrono::seconds>::value>>
    void expires_after(std::chrono::duration<Rep, Period> delay) {
        expires_after(std::chrono::seconds(delay));
    }

    /// Disarms the timer; its function does not run until the timer is armed again.
    virtual void stop() = 0;
};

/// The program's event loop, to which the client hands every handler it runs.
class event_loop {
public:
    virtual ~event_loop() = default;

    /// Runs `task` later on the loop's own thread, in posting order. Called from any thread.
    virtual void post(std::function<void()> task) = 0;

    /// Creates a one-shot timer of this loop.
    virtual std::shared_ptr<timer> make_timer() = 0;
};

} // namespace utils
} // namespace orvix
