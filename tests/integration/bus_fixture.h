#pragma once

#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>

#include <orvix_testing/process.h>
#include <orvix_testing/test_daemon.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace orvix_test {

/// The event loop, private bus daemon and client that the tests of one executable
/// share. The client is bound to the loop for the life of the process.
class bus_environment : public ::testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;

    static std::shared_ptr<orvix::loops::simple_event_loop> loop;
    static test_daemon daemon;
    static orvix::client* client;
    static std::thread::id loop_thread;
};

inline orvix::client& bus() {
    return *bus_environment::client;
}

/// Runs the event loop until `done` holds; false if it still does not after `limit`,
/// a bound that only keeps a broken test from hanging.
bool run_until(const std::function<bool()>& done,
               std::chrono::seconds limit = std::chrono::seconds(20));

/// Connects the client and waits for it.
void connect_client();

/// Aborts whatever a test left and waits until the client is disconnected.
void reset_client();

/// Where and when a handler ran. `inside` is set around the call that registers the
/// handler, so that a handler run from inside that call is noticed.
struct probe {
    int calls = 0;
    bool inside = false;
    bool ran_inside = false;
    bool ran_elsewhere = false;

    void hit() {
        ++calls;
        ran_inside = ran_inside || inside;
        ran_elsewhere = ran_elsewhere || std::this_thread::get_id() != bus_environment::loop_thread;
    }

    template <typename F>
    auto around(F&& registration) {
        inside = true;
        auto result = registration();
        inside = false;
        return result;
    }
};

/// What a completion handler was given, and where it ran.
struct completion {
    probe where;
    std::error_code ec;
};

/// What an invoke's handler was given, and where it ran.
struct outcome : completion {
    std::list<orvix::blob::attr> replies;
};

/// A handler recording into `c`. The handler shares it, as it may outlive the test's frame.
std::function<void(const std::error_code&)> recorder(const std::shared_ptr<completion>& c);

/// Invokes `method` of `object`, recording into `result` around the call.
orvix::utils::link invoke_into(const std::shared_ptr<outcome>& result, const std::string& object,
                               const std::string& method, const orvix::blob::table& args = {},
                               std::chrono::seconds timeout = std::chrono::seconds(0));

/// Publishes `name` with `methods`, recording the outcome around the call.
std::shared_ptr<completion> add_object(const std::string& name,
                                       const orvix::client::method_table& methods);

/// Runs the event loop until `p`'s handler has run.
bool wait_called(const probe& p);

/// Runs the event loop until an object is on the bus under each of `paths`: what the
/// client registers on its own after a connection may still be on its way.
void wait_published(const std::list<std::string>& paths);

/// A test that starts and ends with a fresh connection.
class connected_test : public ::testing::Test {
protected:
    void SetUp() override {
        reset_client();
        connect_client();
    }
    void TearDown() override { reset_client(); }
};

/// Expects that `p`'s handler ran exactly `calls` times, on the loop's thread, and
/// never inside its registering call.
void expect_proper_calls(const probe& p, int calls);

using peer = orvix_testing::process;

/// The C caller's command line for one call over the bus.
std::vector<std::string> caller(const std::string& object, const std::string& method,
                                const std::string& message,
                                const std::string& timeout_ms = "10000");

/// Runs the event loop until `p` has ended; its output lines.
std::vector<std::string> finish(peer& p);

/// Runs the C caller against the bus and returns its output lines.
inline std::vector<std::string> call_over_bus(const std::string& object, const std::string& method,
                                              const std::string& message) {
    peer p(caller(object, method, message));
    return finish(p);
}

/// `argv` started, and on the bus once it has said so, until destroyed.
std::unique_ptr<peer> start_peer(const std::vector<std::string>& argv);

/// The test service, running on the daemon's socket until destroyed.
inline std::unique_ptr<peer> start_service() {
    return start_peer({ORVIX_TEST_SERVICE, bus_environment::daemon.socket});
}

} // namespace orvix_test
