#include "bus_fixture.h"

#include <sstream>

namespace orvix_test {

std::shared_ptr<orvix::loops::simple_event_loop> bus_environment::loop;
test_daemon bus_environment::daemon;
orvix::client* bus_environment::client = nullptr;
std::thread::id bus_environment::loop_thread;

void bus_environment::SetUp() {
    ASSERT_EQ(test_daemon_start(&daemon, ORVIX_TEST_UBUSD), 0) << ORVIX_TEST_UBUSD;
    loop = orvix::loops::simple_event_loop::create();
    loop_thread = std::this_thread::get_id();
    client = &orvix::client::get_instance(loop);
    client->set_socket_path(daemon.socket);
}

void bus_environment::TearDown() {
    client->cancel();
    test_daemon_cleanup(&daemon);
}

namespace {
// Registered before main runs; gtest owns it from then on.
::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new bus_environment);
} // namespace

bool run_until(const std::function<bool()>& done, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        bus_environment::loop->run_for(std::chrono::milliseconds(5));
    }
    return true;
}

void connect_client() {
    bool done = false;
    bus().connect([&done](const std::error_code&) { done = true; });
    ASSERT_TRUE(run_until([&done] { return done; }));
    ASSERT_TRUE(bus().is_active());
}

void reset_client() {
    bus().cancel();
    ASSERT_EQ(bus().get_state(), orvix::client::state::disconnected);
}

std::function<void(const std::error_code&)> recorder(const std::shared_ptr<completion>& c) {
    return [c](const std::error_code& ec) {
        c->where.hit();
        c->ec = ec;
    };
}

orvix::utils::link invoke_into(const std::shared_ptr<outcome>& result, const std::string& object,
                               const std::string& method, const orvix::blob::table& args,
                               std::chrono::seconds timeout) {
    return result->where.around([&] {
        return bus().invoke(
            object, method, args,
            [result](const std::list<orvix::blob::attr>& replies, const std::error_code& ec) {
                result->where.hit();
                result->replies = replies;
                result->ec = ec;
            },
            timeout);
    });
}

std::shared_ptr<completion> add_object(const std::string& name,
                                       const orvix::client::method_table& methods) {
    auto result = std::make_shared<completion>();
    result->where.around([&] { return bus().add_object(name, methods, recorder(result)); });
    return result;
}

bool wait_called(const probe& p) {
    return run_until([&p] { return p.calls > 0; });
}

void expect_proper_calls(const probe& p, int calls) {
    EXPECT_EQ(p.calls, calls);
    EXPECT_FALSE(p.ran_inside) << "handler ran inside the call that registered it";
    EXPECT_FALSE(p.ran_elsewhere) << "handler ran off the event loop's thread";
}

std::vector<std::string> caller(const std::string& object, const std::string& method,
                                const std::string& message, const std::string& timeout_ms) {
    return {ORVIX_TEST_CALLER, bus_environment::daemon.socket, object, method, message, timeout_ms};
}

void wait_published(const std::list<std::string>& paths) {
    const auto published = std::make_shared<completion>();
    bus().wait_for(paths, recorder(published), std::chrono::seconds(20));
    ASSERT_TRUE(wait_called(published->where));
    EXPECT_FALSE(published->ec) << published->ec.message();
}

std::vector<std::string> finish(peer& p) {
    EXPECT_FALSE(p.read_until(
        "", 20000, [] { bus_environment::loop->run_for(std::chrono::milliseconds(5)); }));
    EXPECT_NE(p.wait(), -1) << "did not end";
    std::vector<std::string> lines;
    std::istringstream stream(p.output());
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::unique_ptr<peer> start_peer(const std::vector<std::string>& argv) {
    auto started = std::make_unique<peer>(argv);
    EXPECT_TRUE(started->read_until("ready\n", 20000)) << argv[0];
    return started;
}

} // namespace orvix_test
