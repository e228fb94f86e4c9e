// Exchanges between libubus programs (the C peers in peers/) through orvix-ubusd.
#include "wire.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

using namespace wire;

namespace {

struct Process {
    pid_t pid = 0;
    int out = -1; // stdout and stderr together
};

Process spawn(const char* exe, std::vector<std::string> args) {
    int p[2];
    Process proc;
    if (pipe2(p, O_CLOEXEC) != 0)
        return proc;
    proc.pid = fork();
    if (proc.pid == 0) {
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
    proc.out = p[0];
    return proc;
}

// Reads output until `until` appears (or end of output / time is up).
std::string read_output(Process& proc, int timeout_ms, const std::string& until = "") {
    std::string text;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (!until.empty() && text.find(until) != std::string::npos)
            return text;
        int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                           deadline - std::chrono::steady_clock::now())
                           .count());
        struct pollfd p = {proc.out, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0)
            return text;
        char buf[1024];
        ssize_t n = read(proc.out, buf, sizeof(buf));
        if (n <= 0)
            return text;
        text.append(buf, size_t(n));
    }
}

// Exit status, or -1 when it had to be killed.
int finish(Process& proc, int timeout_ms) {
    int status = -1;
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        int st;
        if (waitpid(proc.pid, &st, WNOHANG) == proc.pid) {
            status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            proc.pid = 0;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (proc.pid) {
        kill(proc.pid, SIGKILL);
        waitpid(proc.pid, nullptr, 0);
        proc.pid = 0;
    }
    if (proc.out >= 0)
        close(proc.out);
    proc.out = -1;
    return status;
}

class Peers : public DaemonTest {
protected:
    void TearDown() override {
        for (Process& s : services_) {
            if (s.pid)
                kill(s.pid, SIGTERM);
            finish(s, 5000);
        }
        DaemonTest::TearDown();
    }

    void start_service(const std::string& path, int count = 0) {
        std::vector<std::string> args = {socket(), path};
        if (count)
            args.push_back(std::to_string(count));
        services_.push_back(spawn(HOSTBUS_PEER_SERVICE, args));
        std::string out = read_output(services_.back(), 30000, "ready\n");
        ASSERT_NE(out.find("ready\n"), std::string::npos) << out;
    }

    // Runs one scenario of the caller peer; its output explains any failure.
    void run_caller(const std::string& scenario) {
        Process caller = spawn(HOSTBUS_PEER_CALLER, {socket(), scenario});
        std::string out = read_output(caller, 60000);
        EXPECT_EQ(finish(caller, 5000), 0) << scenario << ": " << out;
    }

    std::vector<Process> services_;
};

TEST_F(Peers, Lookup) {
    start_service("svc");
    start_service("svc2");
    run_caller("lookup");
}

TEST_F(Peers, InvokeWithNoneOneAndSeveralReplies) {
    start_service("svc");
    run_caller("invoke");
}

TEST_F(Peers, CallerIdentityReachesTheHandler) {
    start_service("svc");
    run_caller("caller_identity");
}

TEST_F(Peers, DeferredReplies) {
    start_service("svc");
    run_caller("deferred");
}

TEST_F(Peers, UnknownObjectAndMethod) {
    start_service("svc");
    run_caller("errors");
}

TEST_F(Peers, Timeout) {
    start_service("svc");
    run_caller("timeout");
}

TEST_F(Peers, OwnerDisconnectingMidCall) {
    start_service("svc");
    run_caller("owner_vanishes");
}

TEST_F(Peers, AddAndRemoveObjects) {
    start_service("svc");
    run_caller("remove");
}

TEST_F(Peers, MessagesNearTheSizeLimit) {
    start_service("svc");
    run_caller("near_limit");
}

TEST_F(Peers, ThousandObjects) {
    start_service("bulk", 1000);
    run_caller("thousand");
}

TEST_F(Peers, ProgramWrittenForUpstreamHeaders) {
    Process p = spawn(HOSTBUS_PEER_UPSTREAM_STYLE, {"-s", socket()});
    std::string out = read_output(p, 30000);
    EXPECT_EQ(finish(p, 5000), 0) << out;
    EXPECT_NE(out.find("OK"), std::string::npos) << out;
}

} // namespace
