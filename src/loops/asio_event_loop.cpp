#include <orvix/loops/asio_event_loop.h>

#include <asio/error_code.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <utility>

namespace orvix {
namespace loops {
namespace {

class asio_timer final : public utils::timer {
public:
    explicit asio_timer(asio::io_context& context)
        : state(std::make_shared<shared_state>(context)) {}

    void wait(std::function<void()> handler) override {
        auto fresh = std::make_shared<const std::function<void()>>(std::move(handler));
        std::lock_guard<std::mutex> lock(state->mutex);
        state->handler.swap(fresh);
    }

    using timer::expires_after;

    void expires_after(std::chrono::seconds delay) override {
        expires_after(std::chrono::milliseconds(delay));
    }

    void expires_after(std::chrono::milliseconds delay) override {
        std::lock_guard<std::mutex> lock(state->mutex);
        const auto arming = ++state->arming;
        state->timer.expires_after(delay);
        state->timer.async_wait(
            [weak = std::weak_ptr<shared_state>(state), arming](const asio::error_code& error) {
                if (!error) {
                    expire(weak, arming);
                }
            });
    }

    void stop() override {
        std::lock_guard<std::mutex> lock(state->mutex);
        ++state->arming;
        state->timer.cancel();
    }

private:
    // What a pending wait needs; it holds it weakly, so a destroyed timer is never touched.
    struct shared_state {
        explicit shared_state(asio::io_context& context) : timer(context) {}

        // Asio timers are not safe for concurrent use; this makes ours safe from any thread.
        std::mutex mutex;
        asio::steady_timer timer;
        std::shared_ptr<const std::function<void()>> handler;
        // Counts armings and stops: an expiry queued before the latest one is stale.
        std::uint64_t arming = 0;
    };

    static void expire(const std::weak_ptr<shared_state>& weak, std::uint64_t arming) {
        std::shared_ptr<const std::function<void()>> handler;
        {
            const auto live = weak.lock();
            if (!live) {
                return;
            }
            std::lock_guard<std::mutex> lock(live->mutex);
            if (arming != live->arming) {
                return;
            }
            handler = live->handler;
        }
        if (handler && *handler) {
            (*handler)();
        }
    }

    std::shared_ptr<shared_state> state;
};

} // namespace

asio_event_loop::asio_event_loop(asio::io_context& context) : context(context) {}

void asio_event_loop::post(std::function<void()> task) {
    asio::post(context, std::move(task));
}

std::shared_ptr<utils::timer> asio_event_loop::make_timer() {
    return std::make_shared<asio_timer>(context);
}

} // namespace loops
} // namespace orvix
