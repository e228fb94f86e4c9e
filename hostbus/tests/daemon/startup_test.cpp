// Command line, listening socket and signals of orvix-ubusd.
#include "daemon_test.h"

#include <orvix_testing/process.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <memory>

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
        daemon_.reset();
        unlink(socket_.c_str());
        rmdir(dir_.c_str());
    }

    // Starts the daemon with its standard error on the pipe. Started with SIGTERM and SIGINT
    // ignored, it finds them so, as under some service managers.
    void start(std::vector<std::string> args, bool ignore_term = false) {
        struct sigaction ignore = {}, term, intr;
        ignore.sa_handler = ignore_term ? SIG_IGN : SIG_DFL;
        sigaction(SIGTERM, &ignore, &term);
        sigaction(SIGINT, &ignore, &intr);
        args.insert(args.begin(), ORVIX_TEST_UBUSD);
        daemon_ = std::make_unique<process>(args, true);
        sigaction(SIGTERM, &term, nullptr);
        sigaction(SIGINT, &intr, nullptr);
    }
    bool accepting() {
        for (int i = 0; i < 1000; i++, usleep(5000)) {
            try {
                bus_client probe(socket_);
                return true;
            } catch (const std::exception&) {
            }
        }
        return false;
    }

    std::string dir_, socket_;
    std::unique_ptr<process> daemon_;
};

TEST_F(Startup, BadCommandLinesFail) {
    const struct {
        std::vector<std::string> args;
        int status;
        const char* text;
    } cases[] = {
        {{"-x"}, 1, "Usage"},
        {{"-s", dir_ + "/missing/bus.sock"}, 255, "usock: "},
    };
    for (const auto& c : cases) {
        start(c.args);
        daemon_->read_until("", 5000);
        EXPECT_EQ(daemon_->wait(), c.status) << c.text;
        EXPECT_NE(daemon_->output().find(c.text), std::string::npos) << daemon_->output();
    }
    EXPECT_NE(access((dir_ + "/missing").c_str(), F_OK), 0) << "no directory is made for -s";
}

TEST_F(Startup, SignalsRemoveTheSocketAndExitCleanly) {
    for (auto [sig, ignored] : {std::pair{SIGTERM, false}, {SIGINT, false}, {SIGTERM, true}}) {
        // A stale file at the path is replaced by the socket, which everyone may use.
        int fd = open(socket_.c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
        start({"-s", socket_}, ignored);
        ASSERT_TRUE(accepting());
        struct stat st;
        ASSERT_EQ(stat(socket_.c_str(), &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0666u);
        bus_client c(socket_);
        ASSERT_NE(c.add_object("x", signature({"m"})), 0u);
        daemon_->signal(sig);
        if (ignored) {
            // uloop leaves an ignored signal alone: the daemon serves on.
            EXPECT_EQ(bus_client(socket_).ping(), 0);
            daemon_->signal(SIGKILL);
            daemon_->wait();
            continue;
        }
        EXPECT_EQ(daemon_->wait(), 0) << sig;
        EXPECT_NE(access(socket_.c_str(), F_OK), 0) << sig;
        EXPECT_TRUE(c.closed_by_peer());
    }
}

TEST_F(Startup, AclDirectoryAndHangupLeaveItServing) {
    start({"-A", "/nonexistent/acl.d", "-s", socket_});
    ASSERT_TRUE(accepting());
    daemon_->signal(SIGHUP);
    usleep(100000);
    bus_client c(socket_);
    EXPECT_EQ(c.ping(), 0);
}

} // namespace
