#pragma once

#include <chrono>
#include <functional>
#include <memory>

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
