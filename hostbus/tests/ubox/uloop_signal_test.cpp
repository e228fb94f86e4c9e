// uloop and process-wide signal state: dispositions taken and given back, SIGINT/SIGTERM
// ending the loop, SIGCHLD reaping. Every test restores the dispositions it changed.
#include <libubox/uloop.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

const int watched[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP};

// What a program can ask for in sa_flags (the C library adds flags of its own).
const int user_flags =
    SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_ONSTACK | SA_NOCLDSTOP | SA_NOCLDWAIT;

void user_handler(int) {}

struct sigaction disposition(int signo) {
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa;
}

void set_disposition(int signo, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigaction(signo, &sa, nullptr);
}

struct Timer {
    uloop_timeout t;
    int fired;
    void (*action)();
    ~Timer() { uloop_timeout_cancel(&t); }
};

void timer_cb(uloop_timeout* t) {
    Timer* tm = reinterpret_cast<Timer*>(t);
    tm->fired++;
    tm->action();
}

Timer timer(void (*action)()) {
    Timer tm{};
    tm.t.cb = timer_cb;
    tm.action = action;
    return tm;
}

class UloopSignals : public ::testing::Test {
protected:
    struct sigaction saved[std::size(watched)];

    void SetUp() override {
        for (size_t i = 0; i < std::size(watched); i++) {
            sigaction(watched[i], nullptr, &saved[i]);
            set_disposition(watched[i], SIG_DFL);
        }
    }
    void TearDown() override {
        uloop_done();
        uloop_handle_sigchld = true;
        for (size_t i = 0; i < std::size(watched); i++)
            sigaction(watched[i], &saved[i], nullptr);
    }
};

TEST_F(UloopSignals, InitTakesDefaultSignalsAndDoneGivesBackAllButSigpipe) {
    ASSERT_EQ(uloop_init(), 0);
    for (int signo : {SIGINT, SIGTERM, SIGCHLD}) {
        struct sigaction sa = disposition(signo);
        EXPECT_NE(sa.sa_handler, SIG_DFL) << signo;
        EXPECT_NE(sa.sa_handler, SIG_IGN) << signo;
        EXPECT_EQ(sa.sa_flags & user_flags, 0) << signo;
    }
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, SIG_IGN);
    EXPECT_EQ(disposition(SIGHUP).sa_handler, SIG_DFL);

    uloop_done();
    for (int signo : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_EQ(disposition(signo).sa_handler, SIG_DFL) << signo;
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, SIG_IGN);
}

TEST_F(UloopSignals, InitLeavesNonDefaultDispositionsAlone) {
    set_disposition(SIGINT, user_handler);
    set_disposition(SIGTERM, SIG_IGN);
    set_disposition(SIGPIPE, user_handler);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGINT).sa_handler, user_handler);
    EXPECT_EQ(disposition(SIGTERM).sa_handler, SIG_IGN);
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, user_handler);
    uloop_done();
    EXPECT_EQ(disposition(SIGINT).sa_handler, user_handler);
    EXPECT_EQ(disposition(SIGTERM).sa_handler, SIG_IGN);
}

TEST_F(UloopSignals, SigchldLeftAloneWhenNotHandled) {
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, SIG_DFL);
}

TEST_F(UloopSignals, DoneKeepsHandlerInstalledByProgramAfterInit) {
    ASSERT_EQ(uloop_init(), 0);
    set_disposition(SIGINT, user_handler);
    uloop_done();
    EXPECT_EQ(disposition(SIGINT).sa_handler, user_handler);
    EXPECT_EQ(disposition(SIGTERM).sa_handler, SIG_DFL);
}

TEST_F(UloopSignals, SecondInitChangesNothing) {
    ASSERT_EQ(uloop_init(), 0);
    set_disposition(SIGTERM, user_handler);
    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGTERM).sa_handler, user_handler);
}

TEST_F(UloopSignals, SigintEndsRunWithStatus2AndNextRunStartsAtZero) {
    ASSERT_EQ(uloop_init(), 0);
    Timer fire = timer([] { raise(SIGINT); });
    Timer guard = timer(uloop_end);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&fire.t, 0);
    EXPECT_EQ(uloop_run(), SIGINT);
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_EQ(guard.fired, 0);

    Timer stop = timer(uloop_end);
    uloop_timeout_set(&stop.t, 0);
    EXPECT_EQ(uloop_run(), 0);
}

// Handled on another thread, the signal cannot interrupt the loop's wait: only the wake-up
// written by the handler can end it long before the guard is due.
TEST_F(UloopSignals, SigtermOnAnotherThreadWakesIdleLoop) {
    ASSERT_EQ(uloop_init(), 0);
    Timer guard = timer(uloop_end);
    uloop_timeout_set(&guard.t, 10000);
    std::thread sender([] {
        usleep(100 * 1000);
        raise(SIGTERM);
    });
    int status = uloop_run();
    sender.join();
    EXPECT_EQ(status, SIGTERM);
    EXPECT_GT(uloop_timeout_remaining64(&guard.t), 5000);
}

struct Child {
    uloop_process p;
    int calls;
    int status;
    ~Child() { uloop_process_delete(&p); }
};

pid_t exited_child(int code) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(code);
    siginfo_t info;
    // Wait for the exit without reaping, so SIGCHLD is pending before the loop runs.
    waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
    return pid;
}

TEST_F(UloopSignals, ExitedChildrenAreReapedAndMatchingProcessCalledBack) {
    ASSERT_EQ(uloop_init(), 0);
    Child child{};
    child.p.cb = [](uloop_process* p, int ret) {
        Child* c = reinterpret_cast<Child*>(p);
        c->calls++;
        c->status = ret;
        uloop_end();
    };
    child.p.pid = exited_child(7);
    pid_t stranger = exited_child(0);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    EXPECT_EQ(uloop_process_add(&child.p), -1);
    Timer guard = timer(uloop_end);
    uloop_timeout_set(&guard.t, 10000);

    uloop_run();
    EXPECT_EQ(guard.fired, 0);
    EXPECT_EQ(child.calls, 1);
    EXPECT_FALSE(child.p.pending);
    EXPECT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(WEXITSTATUS(child.status), 7);
    errno = 0;
    pid_t reaped = waitpid(stranger, nullptr, WNOHANG);
    int wait_errno = errno;
    EXPECT_EQ(reaped, -1);
    EXPECT_EQ(wait_errno, ECHILD);
}

TEST_F(UloopSignals, ProcessBookkeepingAndDoneCancels) {
    ASSERT_EQ(uloop_init(), 0);
    Child child{};
    child.p.pid = 1;
    EXPECT_EQ(uloop_process_delete(&child.p), -1);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    EXPECT_EQ(uloop_process_delete(&child.p), 0);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    uloop_done();
    EXPECT_FALSE(child.p.pending);
}

} // namespace
