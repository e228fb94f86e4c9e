#include <orvix/misc/unix_signal_actions.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <signal.h>
#include <stdexcept>
#include <string>

namespace {

void first_handler(int) {}
void second_handler(int) {}

struct sigaction action_of(int signum) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    sigaction(signum, nullptr, &action);
    return action;
}

void install(int signum, void (*handler)(int), int flags = 0) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signum, &action, nullptr);
}

// Dispositions are process-wide; each test gets the originals back.
class unix_signal_actions_test : public ::testing::Test {
protected:
    void SetUp() override {
        for (int signum : {SIGINT, SIGUSR1, SIGUSR2}) {
            original[signum] = action_of(signum);
        }
    }
    void TearDown() override {
        for (int signum : {SIGINT, SIGUSR1, SIGUSR2}) {
            sigaction(signum, &original[signum], nullptr);
        }
    }

    struct sigaction original[NSIG];
};

TEST_F(unix_signal_actions_test, restore_puts_back_replaced_handlers_repeatedly) {
    install(SIGINT, first_handler, SA_RESTART);
    install(SIGUSR1, SIG_IGN);
    {
        orvix::misc::unix_signal_actions saved;
        saved.set(SIGINT, SIGUSR1);
        install(SIGINT, second_handler);
        install(SIGUSR1, SIG_DFL);
        saved.restore();
        EXPECT_EQ(action_of(SIGINT).sa_handler, &first_handler);
        EXPECT_TRUE(action_of(SIGINT).sa_flags & SA_RESTART);
        EXPECT_EQ(action_of(SIGUSR1).sa_handler, SIG_IGN);

        install(SIGINT, SIG_IGN);
        saved.restore();
        EXPECT_EQ(action_of(SIGINT).sa_handler, &first_handler);
        install(SIGINT, second_handler);
    }
    EXPECT_EQ(action_of(SIGINT).sa_handler, &second_handler);
}

TEST_F(unix_signal_actions_test, unchanged_handler_is_left_alone) {
    install(SIGUSR1, first_handler, SA_RESTART);
    orvix::misc::unix_signal_actions saved;
    saved.set(SIGUSR1);
    // Same handler, other flags: setting the saved action would bring the flag back.
    install(SIGUSR1, first_handler);
    saved.restore();
    EXPECT_FALSE(action_of(SIGUSR1).sa_flags & SA_RESTART);
}

TEST_F(unix_signal_actions_test, first_saved_action_wins) {
    install(SIGUSR2, first_handler);
    orvix::misc::unix_signal_actions saved;
    saved.set(SIGUSR2);
    install(SIGUSR2, second_handler);
    saved.set(SIGUSR2, SIGUSR2);
    install(SIGUSR2, SIG_DFL);
    saved.restore();
    EXPECT_EQ(action_of(SIGUSR2).sa_handler, &first_handler);
}

TEST_F(unix_signal_actions_test, rejected_signal_keeps_earlier_ones_saved) {
    install(SIGUSR1, first_handler);
    install(SIGUSR2, first_handler);
    orvix::misc::unix_signal_actions saved;
    try {
        saved.set(SIGUSR1, 0, SIGUSR2);
        FAIL() << "set did not throw";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "unix_signal_actions failed to get old action of signal 0 [" +
                      std::to_string(EINVAL) + "]: " + std::strerror(EINVAL));
    }
    install(SIGUSR1, second_handler);
    install(SIGUSR2, second_handler);
    saved.restore();
    EXPECT_EQ(action_of(SIGUSR1).sa_handler, &first_handler);
    EXPECT_EQ(action_of(SIGUSR2).sa_handler, &second_handler);
}

} // namespace
