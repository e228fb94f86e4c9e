#include "orvix_testing/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

extern char** environ;

namespace orvix_testing {

process::process(const std::vector<std::string>& argv, bool with_stderr) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (with_stderr) {
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid_ = 0;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
}

process::~process() {
    signal(SIGTERM);
    wait();
    if (out_ >= 0) {
        close(out_);
    }
}

bool process::read_until(const std::string& text, int timeout_ms,
                         const std::function<void()>& idle) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (out_ >= 0 && (text.empty() || output_.find(text) == std::string::npos)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) {
            break;
        }
        if (idle) {
            idle();
        }
        pollfd p = {out_, POLLIN, 0};
        const int ready = poll(&p, 1, idle ? 0 : int(left.count()));
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready <= 0) {
            continue;
        }
        char buf[1024];
        const ssize_t n = read(out_, buf, sizeof(buf));
        if (n <= 0) {
            close(out_);
            out_ = -1;
            break;
        }
        output_.append(buf, static_cast<std::size_t>(n));
    }
    return !text.empty() && output_.find(text) != std::string::npos;
}

int process::wait(int timeout_ms) {
    for (int waited = 0; pid_ && waited <= timeout_ms; waited += 5) {
        int st;
        if (waitpid(pid_, &st, WNOHANG) == pid_) {
            pid_ = 0;
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        } else {
            usleep(5000);
        }
    }
    if (pid_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
        status_ = -1;
    }
    return status_;
}

void process::signal(int signo) {
    if (pid_) {
        kill(pid_, signo);
    }
}

} // namespace orvix_testing
