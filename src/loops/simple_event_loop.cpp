#include <orvix/loops/simple_event_loop.h>

#include "simple_loop_scheduler.h"

#include <chrono>
#include <utility>

namespace orvix {
namespace loops {
namespace {

class simple_timer final : public utils::timer {
public:
    explicit simple_timer(std::weak_ptr<detail::simple_loop_scheduler> scheduler)
        : scheduler(std::move(scheduler)) {}

    ~simple_timer() override {
        // The schedule points at `slot`, which is about to go.
        if (auto live = scheduler.lock()) {
            live->disarm(slot);
        }
    }

    void wait(std::function<void()> handler) override {
        if (auto live = scheduler.lock()) {
            live->set_handler(slot, std::move(handler));
        }
    }

    using timer::expires_after;

    void expires_after(std::chrono::seconds delay) override {
        expires_after(std::chrono::milliseconds(delay));
    }

    void expires_after(std::chrono::milliseconds delay) override {
        if (auto live = scheduler.lock()) {
            live->arm(slot, delay);
        }
    }

    void stop() override {
        if (auto live = scheduler.lock()) {
            live->disarm(slot);
        }
    }

private:
    // Once the loop is gone nothing can run, so every operation has nothing left to do.
    std::weak_ptr<detail::simple_loop_scheduler> scheduler;
    detail::simple_loop_scheduler::timer_slot slot;
};

} // namespace

std::shared_ptr<simple_event_loop> simple_event_loop::create() {
    return std::shared_ptr<simple_event_loop>(new simple_event_loop());
}

simple_event_loop::simple_event_loop()
    : scheduler(std::make_shared<detail::simple_loop_scheduler>()) {}

simple_event_loop::~simple_event_loop() {
    // Nobody could stop a run of a loop that is gone.
    scheduler->stop();
}

void simple_event_loop::post(std::function<void()> task) {
    scheduler->post(std::move(task));
}

std::shared_ptr<utils::timer> simple_event_loop::make_timer() {
    return std::make_shared<simple_timer>(scheduler);
}

void simple_event_loop::run() {
    // A task may drop the last reference to this loop; the scheduler stays until run ends.
    const auto keep = scheduler;
    keep->run(std::nullopt);
}

void simple_event_loop::run_for(std::chrono::milliseconds duration) {
    const auto keep = scheduler;
    keep->run(detail::simple_loop_scheduler::clock::now() + duration);
}

void simple_event_loop::stop() {
    scheduler->stop();
}

} // namespace loops
} // namespace orvix
