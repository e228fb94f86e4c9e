#include "bus_fixture.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

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

void expect_proper_calls(const probe& p, int calls) {
    EXPECT_EQ(p.calls, calls);
    EXPECT_FALSE(p.ran_inside) << "handler ran inside the call that registered it";
    EXPECT_FALSE(p.ran_elsewhere) << "handler ran off the event loop's thread";
}

peer_process::peer_process(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out = fds[0];
    if (rc != 0) {
        pid = 0;
        throw std::system_error(rc, std::generic_category(), "posix_spawn " + argv[0]);
    }
    fcntl(out, F_SETFL, fcntl(out, F_GETFL) | O_NONBLOCK);
}

peer_process::~peer_process() {
    terminate();
    close(out);
}

void peer_process::terminate() {
    if (pid != 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        pid = 0;
    }
}

void peer_process::read_available() {
    char chunk[512];
    ssize_t n;
    while ((n = read(out, chunk, sizeof(chunk))) > 0) {
        output.append(chunk, static_cast<std::size_t>(n));
    }
}

bool peer_process::wait_for_line(const std::string& line, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        read_available();
        for (const auto& seen : lines()) {
            if (seen == line) {
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        pollfd pfd{out, POLLIN, 0};
        poll(&pfd, 1, 10);
    }
}

bool peer_process::wait_exit(std::chrono::seconds limit) {
    const bool exited = run_until(
        [this] {
            read_available();
            if (waitpid(pid, nullptr, WNOHANG) == pid) {
                pid = 0;
            }
            return pid == 0;
        },
        limit);
    read_available();
    return exited;
}

std::vector<std::string> peer_process::lines() const {
    std::vector<std::string> result;
    std::istringstream stream(output);
    std::string line;
    while (std::getline(stream, line)) {
        result.push_back(line);
    }
    return result;
}

std::vector<std::string> call_over_bus(const std::string& object, const std::string& method,
                                       const std::string& message, const std::string& timeout_ms) {
    peer_process caller(
        {ORVIX_TEST_CALLER, bus_environment::daemon.socket, object, method, message, timeout_ms});
    EXPECT_TRUE(caller.wait_exit());
    return caller.lines();
}

std::unique_ptr<peer_process> start_service() {
    auto service = std::make_unique<peer_process>(
        std::vector<std::string>{ORVIX_TEST_SERVICE, bus_environment::daemon.socket});
    EXPECT_TRUE(service->wait_for_line("ready", std::chrono::seconds(20)));
    return service;
}

} // namespace orvix_test
