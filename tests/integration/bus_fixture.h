#pragma once

#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>

#include <test_daemon.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <sys/types.h>
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

/// What an invoke's handler was given, and where it ran.
struct outcome {
    probe where;
    std::list<orvix::blob::attr> replies;
    std::error_code ec;
};

/// Expects that `p`'s handler ran exactly `calls` times, on the loop's thread, and
/// never inside its registering call.
void expect_proper_calls(const probe& p, int calls);

/// A helper program with its standard output on a pipe.
class peer_process {
public:
    explicit peer_process(const std::vector<std::string>& argv);
    ~peer_process();

    peer_process(const peer_process&) = delete;
    peer_process& operator=(const peer_process&) = delete;

    /// Waits, without running the event loop, until the program has printed `line`.
    bool wait_for_line(const std::string& line, std::chrono::seconds limit);
    /// Runs the event loop until the program has exited.
    bool wait_exit(std::chrono::seconds limit = std::chrono::seconds(20));
    /// Its output lines so far.
    std::vector<std::string> lines() const;
    void terminate();

private:
    void read_available();

    pid_t pid = 0;
    int out = -1;
    std::string output;
};

/// Runs the C caller against the bus and returns its output lines.
std::vector<std::string> call_over_bus(const std::string& object, const std::string& method,
                                       const std::string& message,
                                       const std::string& timeout_ms = "10000");

/// The test service, running on the daemon's socket until destroyed.
std::unique_ptr<peer_process> start_service();

} // namespace orvix_test
