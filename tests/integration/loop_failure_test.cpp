// The loop thread stopped for good. Its own executable: the client cannot recover.
#include "bus_fixture.h"

#include <orvix/error.h>
#include <orvix/uloop.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using namespace orvix_test;
using state = orvix::client::state;

std::shared_ptr<outcome> call(const std::string& method) {
    auto result = std::make_shared<outcome>();
    invoke_into(result, "test.service", method);
    return result;
}

TEST(loop_failure, every_pending_and_later_handler_fails_once_and_the_client_is_disconnected) {
    const auto service = start_service();
    connect_client();
    const auto held = call("silent");
    const auto answered = call("none");
    ASSERT_TRUE(run_until([&answered] { return answered->where.calls > 0; }));
    // Work that throws stops the loop thread; what is posted with it in one batch is
    // lost with it.
    orvix::uloop::get_instance().post([] { throw std::runtime_error("loop thread stops"); });
    const auto same_batch = call("none");
    ASSERT_TRUE(run_until([&] { return held->where.calls > 0 && same_batch->where.calls > 0; }));
    EXPECT_EQ(held->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(same_batch->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(bus().get_state(), state::disconnected);

    const auto later = call("none");
    auto added = std::make_shared<completion>();
    added->where.around([&] { return bus().add_object("orvix.test.late", {}, recorder(added)); });
    auto connected = std::make_shared<completion>();
    connected->where.around([&] { return bus().connect(recorder(connected)); });
    ASSERT_TRUE(run_until([&] {
        return later->where.calls > 0 && added->where.calls > 0 && connected->where.calls > 0;
    }));
    EXPECT_EQ(later->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(added->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(connected->ec, orvix::error::generic::unknown_error);
    EXPECT_EQ(bus().get_state(), state::disconnected);

    run_until([] { return false; }, std::chrono::seconds(1));
    for (const auto* where :
         {&held->where, &same_batch->where, &later->where, &added->where, &connected->where}) {
        expect_proper_calls(*where, 1);
    }
}

} // namespace
