#pragma once

#include <orvix/utils/event_loop.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace orvix_test {

/// An event loop run by the test's own thread, whose timers expire only when the test
/// fires them: back-off and timeouts without waiting.
class manual_loop : public orvix::utils::event_loop {
public:
    class manual_timer : public orvix::utils::timer {
    public:
        void wait(std::function<void()> fn) override { handler = std::move(fn); }
        void expires_after(std::chrono::seconds d) override {
            armed = true;
            delay = d;
        }
        void stop() override { armed = false; }

        std::function<void()> handler;
        bool armed = false;
        std::chrono::seconds delay{0};
    };

    void post(std::function<void()> task) override {
        std::lock_guard<std::mutex> lock(mutex);
        tasks.push_back(std::move(task));
        posted.notify_one();
    }

    std::shared_ptr<orvix::utils::timer> make_timer() override {
        auto t = std::make_shared<manual_timer>();
        timers.push_back(t);
        return t;
    }

    /// Runs posted tasks until `done` holds; false if it still does not after `limit`.
    bool run_until(const std::function<bool()>& done,
                   std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            std::unique_lock<std::mutex> lock(mutex);
            if (!posted.wait_until(lock, end, [this] { return !tasks.empty(); })) {
                return false;
            }
            auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
        }
        return true;
    }

    /// Runs what is posted until nothing more comes for a short while.
    void settle() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            if (!posted.wait_for(lock, std::chrono::milliseconds(50),
                                 [this] { return !tasks.empty(); })) {
                return;
            }
            auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
        }
    }

    /// The armed timers that still exist, in creation order.
    std::vector<std::shared_ptr<manual_timer>> armed() {
        std::vector<std::shared_ptr<manual_timer>> result;
        for (const auto& weak : timers) {
            const auto t = weak.lock();
            if (t && t->armed) {
                result.push_back(t);
            }
        }
        return result;
    }

    /// Lets an armed timer expire.
    static void fire(const std::shared_ptr<manual_timer>& t) {
        t->armed = false;
        t->handler();
    }

private:
    std::mutex mutex;
    std::condition_variable posted;
    std::deque<std::function<void()>> tasks;
    std::vector<std::weak_ptr<manual_timer>> timers;
};

} // namespace orvix_test
