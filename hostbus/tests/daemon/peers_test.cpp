// Exchanges between libubus programs (the C peers in peers/) through orvix-ubusd.
#include "wire.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

using namespace wire;

namespace {

struct Process {
    pid_t pid = 0;
    int out = -1; // stdout and stderr together

    Process(const char* exe, std::vector<std::string> args) {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            dup2(p[1], 1);
            dup2(p[1], 2);
            std::vector<char*> argv = {const_cast<char*>(exe)};
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(exe, argv.data());
            _exit(127);
        }
        close(p[1]);
        out = p[0];
    }
    ~Process() {
        if (pid)
            kill(pid, SIGTERM);
        finish();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Output until `until` appears, the output ends or the time is up.
    std::string read(int timeout_ms, const std::string& until = "") {
        std::string text;
        struct pollfd p = {out, POLLIN, 0};
        char buf[1024];
        ssize_t n;
        while ((until.empty() || text.find(until) == std::string::npos) &&
               poll(&p, 1, timeout_ms) > 0 && (n = ::read(out, buf, sizeof(buf))) > 0)
            text.append(buf, size_t(n));
        return text;
    }

    // Exit status, or -1 when it had to be killed.
    int finish(int timeout_ms = 5000) {
        int status = -1, st;
        for (int waited = 0; pid && waited <= timeout_ms; waited += 10, usleep(10000)) {
            if (waitpid(pid, &st, WNOHANG) == pid) {
                status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                pid = 0;
            }
        }
        if (pid) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            pid = 0;
        }
        if (out >= 0)
            close(out);
        out = -1;
        return status;
    }
};

struct Scenario {
    const char* name;
    std::vector<std::pair<std::string, int>> services; // path and object count
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
}

class Peers : public DaemonTest, public ::testing::WithParamInterface<Scenario> {};

TEST_P(Peers, Scenario) {
    std::vector<std::unique_ptr<Process>> services;
    for (const auto& [path, count] : GetParam().services) {
        std::vector<std::string> args = {socket(), path};
        if (count)
            args.push_back(std::to_string(count));
        services.push_back(std::make_unique<Process>(HOSTBUS_PEER_SERVICE, args));
        std::string out = services.back()->read(30000, "ready\n");
        ASSERT_NE(out.find("ready\n"), std::string::npos) << out;
    }
    Process caller(HOSTBUS_PEER_CALLER, {socket(), GetParam().name});
    std::string out = caller.read(60000);
    EXPECT_EQ(caller.finish(), 0) << out;
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, Peers,
    ::testing::Values(Scenario{"lookup", {{"svc", 0}, {"svc2", 0}}},
                      Scenario{"invoke", {{"svc", 0}}}, Scenario{"deferred", {{"svc", 0}}},
                      Scenario{"errors", {{"svc", 0}}}, Scenario{"owner_vanishes", {{"svc", 0}}},
                      Scenario{"remove", {{"svc", 0}}}, Scenario{"near_limit", {{"svc", 0}}},
                      Scenario{"thousand", {{"bulk", 1000}}}),
    [](const ::testing::TestParamInfo<Scenario>& info) { return std::string(info.param.name); });

class UpstreamStyle : public DaemonTest {};

// The program is compiled exactly as written for the upstream headers.
TEST_F(UpstreamStyle, RunsThroughTheDaemon) {
    Process p(HOSTBUS_PEER_UPSTREAM_STYLE, {"-s", socket()});
    std::string out = p.read(30000);
    EXPECT_EQ(p.finish(), 0) << out;
    EXPECT_NE(out.find("OK"), std::string::npos) << out;
}

} // namespace
