#pragma once

#include <orvix/utils/event_loop.h>

#include <asio/io_context.hpp>

#include <functional>
#include <memory>

namespace orvix {
namespace loops {

/// The event loop of a program built on standalone Asio: tasks and timers run on the
/// threads that run the io_context, which must outlive this adaptor and its timers.
///
/// post() and the timers may be used from any thread. A timer stopped, re-armed or
/// destroyed before its function has started does not run it, even when its expiry was
/// already queued.
class asio_event_loop final : public utils::event_loop {
public:
    explicit asio_event_loop(asio::io_context& context);

    void post(std::function<void()> task) override;
    std::shared_ptr<utils::timer> make_timer() override;

private:
    asio::io_context& context;
};

} // namespace loops
} // namespace orvix
