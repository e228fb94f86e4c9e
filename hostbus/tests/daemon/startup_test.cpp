// Command line, listening socket and signals of orvix-ubusd.
#include "wire.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
        if (err_ >= 0)
            close(err_);
        unlink(socket_.c_str());
        rmdir(dir_.c_str());
    }

    // Starts the daemon with its stderr in `err_`; waits for the socket unless `expect_exit`.
    void spawn(std::vector<std::string> args, bool ignore_term = false, bool expect_exit = false) {
        char tmpl[] = "/tmp/orvix-startup-err-XXXXXX";
        int err = mkstemp(tmpl);
        ASSERT_GE(err, 0);
        unlink(tmpl);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(err, 2);
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
        err_ = err;
        for (int i = 0; i < 1000 && !expect_exit; i++) {
            try {
                Client probe(socket_);
                return;
            } catch (const std::exception&) {
                usleep(5000);
            }
        }
        ASSERT_TRUE(expect_exit) << "the socket never accepted";
    }

    // Exit status (1000 + signal when killed), or -1 if it did not exit in time; and stderr.
    int wait_exit(std::string* stderr_text = nullptr) {
        for (int waited = 0; waited < 5000; waited += 5, usleep(5000)) {
            int st;
            if (waitpid(pid_, &st, WNOHANG) != pid_)
                continue;
            pid_ = 0;
            char buf[512];
            ssize_t n;
            while (stderr_text &&
                   (n = pread(err_, buf, sizeof(buf), off_t(stderr_text->size()))) > 0)
                stderr_text->append(buf, size_t(n));
            close(err_);
            err_ = -1;
            return WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
        }
        return -1;
    }

    std::string dir_, socket_;
    pid_t pid_ = 0;
    int err_ = -1;
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
        spawn(c.args, false, true);
        std::string text;
        EXPECT_EQ(wait_exit(&text), c.status) << c.text;
        EXPECT_NE(text.find(c.text), std::string::npos) << text;
    }
    EXPECT_NE(access((dir_ + "/missing").c_str(), F_OK), 0) << "no directory is made for -s";
}

TEST_F(Startup, SignalsRemoveTheSocketAndExitCleanly) {
    for (auto [sig, ignored] : {std::pair{SIGTERM, false}, {SIGINT, false}, {SIGTERM, true}}) {
        // A stale file at the path is replaced by the socket, which everyone may use.
        int fd = open(socket_.c_str(), O_CREAT | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
        spawn({"-s", socket_}, ignored);
        struct stat st;
        ASSERT_EQ(stat(socket_.c_str(), &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0666u);
        Client c(socket_);
        ASSERT_NE(c.add_object("x", signature({"m"})), 0u);
        kill(pid_, sig);
        EXPECT_EQ(wait_exit(), 0) << sig << (ignored ? " started ignored" : "");
        EXPECT_NE(access(socket_.c_str(), F_OK), 0) << sig;
        EXPECT_TRUE(c.closed_by_peer());
    }
}

TEST_F(Startup, AclDirectoryAndHangupLeaveItServing) {
    spawn({"-A", "/nonexistent/acl.d", "-s", socket_});
    kill(pid_, SIGHUP);
    usleep(100000);
    Client c(socket_);
    EXPECT_EQ(c.ping(), 0);
}

} // namespace
