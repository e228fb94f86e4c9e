#include "event_loop_conformance.h"

#include <orvix/loops/asio_event_loop.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <future>
#include <memory>
#include <optional>

namespace {

class asio_driver {
public:
    orvix::utils::event_loop& loop() { return *adaptor; }

    void run_due() {
        context.restart();
        context.run();
    }

    std::future<void> start() {
        work.emplace(context.get_executor());
        return std::async(std::launch::async, [this] { run_due(); });
    }

    void finish() { work.reset(); }

private:
    asio::io_context context;
    std::shared_ptr<orvix::loops::asio_event_loop> adaptor =
        std::make_shared<orvix::loops::asio_event_loop>(context);
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
};

INSTANTIATE_TYPED_TEST_SUITE_P(asio, event_loop_conformance, asio_driver);

} // namespace
