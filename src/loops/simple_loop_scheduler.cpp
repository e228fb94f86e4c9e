#include "simple_loop_scheduler.h"

#include <stdexcept>

namespace orvix {
namespace loops {
namespace detail {

void simple_loop_scheduler::post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        tasks.push_back(std::move(task));
    }
    wake.notify_one();
}

void simple_loop_scheduler::set_handler(timer_slot& slot, std::function<void()> handler) {
    auto fresh = std::make_shared<const std::function<void()>>(std::move(handler));
    std::lock_guard<std::mutex> lock(mutex);
    slot.handler.swap(fresh);
    // The old handler goes with `fresh` after the unlock: its captures may call back in.
}

void simple_loop_scheduler::arm(timer_slot& slot, clock::duration delay) {
    const auto deadline = clock::now() + delay;
    {
        std::lock_guard<std::mutex> lock(mutex);
        erase(slot);
        slot.position = schedule.emplace(std::make_pair(deadline, armings++), &slot).first;
    }
    wake.notify_one();
}

void simple_loop_scheduler::disarm(timer_slot& slot) {
    std::lock_guard<std::mutex> lock(mutex);
    erase(slot);
}

void simple_loop_scheduler::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop_requested = true;
    }
    wake.notify_one();
}

void simple_loop_scheduler::run(std::optional<clock::time_point> end) {
    std::unique_lock<std::mutex> lock(mutex);
    if (running) {
        throw std::logic_error("orvix::loops::simple_event_loop: the loop is already running");
    }
    running = true;

    // However run ends, even by an exception from a task, the loop can be run again
    // and a stop request does not outlive the run it ended.
    struct run_end {
        std::unique_lock<std::mutex>& lock;
        bool& running;
        bool& stop_requested;
        ~run_end() {
            if (!lock.owns_lock()) {
                lock.lock();
            }
            running = false;
            stop_requested = false;
        }
    } guard{lock, running, stop_requested};

    while (run_pass(lock)) {
        const auto now = clock::now();
        if (end && now >= *end) {
            return;
        }
        if (!tasks.empty()) {
            continue;
        }
        auto next = end;
        if (!schedule.empty() && (!next || schedule.begin()->first.first < *next)) {
            next = schedule.begin()->first.first;
        }
        if (!next) {
            wake.wait(lock);
        } else if (*next > now) {
            wake.wait_until(lock, *next);
        }
    }
}

bool simple_loop_scheduler::run_pass(std::unique_lock<std::mutex>& lock) {
    if (stop_requested) {
        return false;
    }
    const auto now = clock::now();
    const auto armed_before = armings;

    // Only what was there when the pass began, so that a task posting tasks or a timer
    // re-arming itself cannot keep the other one waiting.
    for (auto count = tasks.size(); count > 0; --count) {
        {
            auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
        }
        lock.lock();
        if (stop_requested) {
            return false;
        }
    }

    while (!schedule.empty()) {
        const auto first = schedule.begin();
        if (first->first.first > now || first->first.second >= armed_before) {
            break;
        }
        timer_slot& slot = *first->second;
        {
            auto handler = slot.handler;
            schedule.erase(first);
            slot.position.reset();
            lock.unlock();
            if (handler && *handler) {
                (*handler)();
            }
        }
        lock.lock();
        if (stop_requested) {
            return false;
        }
    }
    return true;
}

void simple_loop_scheduler::erase(timer_slot& slot) {
    if (slot.position) {
        schedule.erase(*slot.position);
        slot.position.reset();
    }
}

} // namespace detail
} // namespace loops
} // namespace orvix
