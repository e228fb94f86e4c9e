// Command line, listening socket and signals of orvix-ubusd.
#include "wire.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

using namespace wire;

namespace {

class Startup : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/orvix-startup-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        socket_ = dir_ + "/bus.sock";
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (err_fd_ >= 0)
            close(err_fd_);
        unlink(socket_.c_str());
        rmdir(dir_.c_str());
    }

    void spawn(std::vector<std::string> args, bool ignore_term = false) {
        int p[2];
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(p[1], 2);
            if (ignore_term) {
                signal(SIGTERM, SIG_IGN);
                signal(SIGINT, SIG_IGN);
            }
            std::vector<char*> argv = {const_cast<char*>(ORVIX_TEST_UBUSD)};
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(ORVIX_TEST_UBUSD, argv.data());
            _exit(127);
        }
        close(p[1]);
        err_fd_ = p[0];
    }

    bool wait_for_socket() {
        for (int i = 0; i < 1000; i++) {
            try {
                Client c(socket_);
                return true;
            } catch (const std::exception&) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
        return false;
    }

    // Exit status, or -1 if it did not exit within the time.
    int wait_exit(int timeout_ms = 5000) {
        for (int waited = 0; waited < timeout_ms; waited += 5) {
            int st;
            if (waitpid(pid_, &st, WNOHANG) == pid_) {
                pid_ = 0;
                return WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

    std::string stderr_text() {
        std::string out;
        char buf[512];
        ssize_t n;
        while ((n = read(err_fd_, buf, sizeof(buf))) > 0)
            out.append(buf, size_t(n));
        return out;
    }

    std::string dir_, socket_;
    pid_t pid_ = 0;
    int err_fd_ = -1;
};

TEST_F(Startup, UnknownOptionPrintsUsageAndFails) {
    spawn({"-x"});
    EXPECT_EQ(wait_exit(), 1);
    EXPECT_NE(stderr_text().find("Usage"), std::string::npos);
}

TEST_F(Startup, AclDirectoryIsAcceptedAndIgnored) {
    spawn({"-A", "/nonexistent/acl.d", "-s", socket_});
    ASSERT_TRUE(wait_for_socket());
    Client c(socket_);
    EXPECT_EQ(c.ping(), 0);
}

TEST_F(Startup, SignalsRemoveTheSocketAndExitCleanly) {
    for (int sig : {SIGTERM, SIGINT}) {
        // A stale file at the path is replaced by the socket, which everyone may use.
        int fd = open(socket_.c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
        spawn({"-s", socket_});
        ASSERT_TRUE(wait_for_socket());
        struct stat st;
        ASSERT_EQ(stat(socket_.c_str(), &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0666u);
        Client c(socket_);
        ASSERT_NE(c.add_object("x", signature({"m"})), 0u);
        kill(pid_, sig);
        EXPECT_EQ(wait_exit(), 0) << sig;
        EXPECT_NE(access(socket_.c_str(), F_OK), 0) << sig;
        EXPECT_TRUE(c.closed_by_peer());
        close(err_fd_);
        err_fd_ = -1;
    }
}

TEST_F(Startup, StopsEvenWhenStartedWithSignalsIgnored) {
    spawn({"-s", socket_}, true);
    ASSERT_TRUE(wait_for_socket());
    kill(pid_, SIGTERM);
    EXPECT_EQ(wait_exit(), 0);
}

TEST_F(Startup, HangupDoesNotStopTheDaemon) {
    spawn({"-s", socket_});
    ASSERT_TRUE(wait_for_socket());
    kill(pid_, SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Client c(socket_);
    EXPECT_EQ(c.ping(), 0);
}

TEST_F(Startup, MissingSocketDirectoryFails) {
    spawn({"-s", dir_ + "/missing/bus.sock"});
    EXPECT_EQ(wait_exit(), 255);
    EXPECT_NE(stderr_text().find("usock: "), std::string::npos);
    EXPECT_NE(access((dir_ + "/missing").c_str(), F_OK), 0);
}

} // namespace
