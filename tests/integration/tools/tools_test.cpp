// Runs the orvix tool and the example programs as processes against a private bus daemon
// and checks what they print and how they exit.

#include <test_daemon.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

test_daemon daemon_on_test_socket;

class daemon_environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(test_daemon_start(&daemon_on_test_socket, ORVIX_TEST_UBUSD), 0)
            << ORVIX_TEST_UBUSD;
    }
    void TearDown() override { test_daemon_cleanup(&daemon_on_test_socket); }
};

::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new daemon_environment);

std::string bus_socket() {
    return daemon_on_test_socket.socket;
}

struct pipe_pair {
    int read_end = -1;
    int write_end = -1;

    pipe_pair() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        read_end = fds[0];
        write_end = fds[1];
    }
    ~pipe_pair() {
        close_write();
        if (read_end >= 0)
            close(read_end);
    }
    pipe_pair(const pipe_pair&) = delete;
    pipe_pair& operator=(const pipe_pair&) = delete;

    void close_write() {
        if (write_end >= 0)
            close(write_end);
        write_end = -1;
    }
};

// Starts `argv` with its stdout (and, when given, stderr) on the pipes' write ends.
pid_t spawn(const std::vector<std::string>& argv, pipe_pair& out, pipe_pair* err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out.write_end, STDOUT_FILENO);
    if (err)
        posix_spawn_file_actions_adddup2(&actions, err->write_end, STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    out.close_write();
    if (err)
        err->close_write();
    if (rc != 0)
        throw std::system_error(rc, std::generic_category(), "posix_spawn " + argv[0]);
    return pid;
}

// Appends what is readable now; false once the writer has closed its end.
bool drain(int fd, std::string& into) {
    char chunk[4096];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
        into.append(chunk, static_cast<std::size_t>(n));
        return true;
    }
    return n < 0 && (errno == EINTR || errno == EAGAIN);
}

// Waits for `pid` until `deadline`, then kills it; the exit status, or -1 when it was
// killed or died of a signal.
int reap(pid_t pid, steady_clock::time_point deadline) {
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(10000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct outcome {
    std::string out;
    std::string err;
    int status = -1;
};

// Runs a program to its end; a bound that only keeps a broken program from hanging.
outcome run(const std::vector<std::string>& argv, seconds limit = seconds(20)) {
    pipe_pair out, err;
    const pid_t pid = spawn(argv, out, &err);
    const auto deadline = steady_clock::now() + limit;
    outcome result;
    bool out_open = true, err_open = true;
    while ((out_open || err_open) && steady_clock::now() < deadline) {
        pollfd fds[2] = {{out_open ? out.read_end : -1, POLLIN, 0},
                         {err_open ? err.read_end : -1, POLLIN, 0}};
        if (poll(fds, 2, 100) <= 0)
            continue;
        if (fds[0].revents != 0)
            out_open = drain(out.read_end, result.out);
        if (fds[1].revents != 0)
            err_open = drain(err.read_end, result.err);
    }
    result.status = reap(pid, deadline);
    return result;
}

outcome orvix(std::vector<std::string> args) {
    args.insert(args.begin(), {ORVIX_TOOL, "-s", bus_socket()});
    return run(args);
}

// A program running in the background with its stdout on a pipe.
class background {
public:
    explicit background(const std::vector<std::string>& argv) : pid(spawn(argv, out, nullptr)) {}
    ~background() { stop(); }
    background(const background&) = delete;
    background& operator=(const background&) = delete;

    bool wait_for_output(const std::string& text, seconds limit = seconds(20)) {
        const auto deadline = steady_clock::now() + limit;
        bool open = true;
        while (output.find(text) == std::string::npos) {
            if (!open || steady_clock::now() >= deadline)
                return false;
            pollfd fd{out.read_end, POLLIN, 0};
            if (poll(&fd, 1, 100) > 0)
                open = drain(out.read_end, output);
        }
        return true;
    }

    // SIGTERM, then its exit status and everything it printed.
    int stop() {
        if (pid == 0)
            return -1;
        kill(pid, SIGTERM);
        const int status = reap(pid, steady_clock::now() + seconds(10));
        pid = 0;
        while (drain(out.read_end, output)) {
        }
        return status;
    }

    const std::string& printed() const { return output; }

private:
    pipe_pair out;
    pid_t pid;
    std::string output;
};

const std::string usage_text =
    std::string("usage: ") + ORVIX_TOOL +
    " [-s SOCKET] [-t SECONDS] [-S] call OBJECT METHOD [JSON]\n"
    "  -s SOCKET   the bus daemon's socket (default: libubus's default)\n"
    "  -t SECONDS  how long to wait for the answer, 0 for ever "
    "(default: 30)\n"
    "  -S          print each reply on one line\n";

void expect_outcome(const outcome& got, int status, const std::string& out,
                    const std::string& err) {
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(got.out, out);
    EXPECT_EQ(got.err, err);
}

// The C peer service "test.service", shared by the tool's tests.
class tool_test : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        service = std::make_unique<background>(
            std::vector<std::string>{ORVIX_TEST_SERVICE, bus_socket()});
        ASSERT_TRUE(service->wait_for_output("ready\n"));
    }
    static void TearDownTestSuite() { service.reset(); }

    static std::unique_ptr<background> service;
};

std::unique_ptr<background> tool_test::service;

TEST_F(tool_test, PrintsOneReplyIndentedWithTabs) {
    const auto got =
        orvix({"call", "test.service", "echo",
               R"({"big": 5000000000, "flag": true, "name": "a \"quoted\"\ttab", "negative": -7,
                   "nested": {"empty": {}, "list": [1, "two", null, []], "ratio": 2.25}})"});
    expect_outcome(got, 0,
                   "{\n"
                   "\t\"big\": 5000000000,\n"
                   "\t\"flag\": true,\n"
                   "\t\"name\": \"a \\\"quoted\\\"\\ttab\",\n"
                   "\t\"negative\": -7,\n"
                   "\t\"nested\": {\n"
                   "\t\t\"empty\": {\n"
                   "\t\t\t\n"
                   "\t\t},\n"
                   "\t\t\"list\": [\n"
                   "\t\t\t1,\n"
                   "\t\t\t\"two\",\n"
                   "\t\t\tnull,\n"
                   "\t\t\t[\n"
                   "\t\t\t\t\n"
                   "\t\t\t]\n"
                   "\t\t],\n"
                   "\t\t\"ratio\": 2.250000\n"
                   "\t}\n"
                   "}\n",
                   "");
}

TEST_F(tool_test, PrintsAnEmptyReplyForACallWithoutArguments) {
    expect_outcome(orvix({"call", "test.service", "echo"}), 0, "{\n\t\n}\n", "");
    expect_outcome(orvix({"-S", "call", "test.service", "echo"}), 0, "{}\n", "");
}

TEST_F(tool_test, PrintsEveryReplyAsItsOwnDocument) {
    expect_outcome(orvix({"call", "test.service", "many"}), 0,
                   "{\n\t\"index\": 0\n}\n{\n\t\"index\": 1\n}\n{\n\t\"index\": 2\n}\n", "");
}

TEST_F(tool_test, PrintsCompactLinesWithDashS) {
    expect_outcome(
        orvix({"-S", "call", "test.service", "echo", R"({"a": 1, "b": "x", "c": [true, {}]})"}), 0,
        "{\"a\":1,\"b\":\"x\",\"c\":[true,{}]}\n", "");
    expect_outcome(orvix({"-S", "call", "test.service", "many"}), 0,
                   "{\"index\":0}\n{\"index\":1}\n{\"index\":2}\n", "");
}

TEST_F(tool_test, TakesOptionsAfterTheCommand) {
    expect_outcome(orvix({"call", "test.service", "echo", R"({"a": 1})", "-S"}), 0, "{\"a\":1}\n",
                   "");
}

TEST_F(tool_test, PrintsNothingForASuccessWithoutReplies) {
    expect_outcome(orvix({"call", "test.service", "none"}), 0, "", "");
}

TEST_F(tool_test, ExitsWithTheStatusOfAFailingMethod) {
    expect_outcome(orvix({"call", "test.service", "fail"}), 6, "",
                   "orvix: call test.service fail failed: Permission denied\n");
}

TEST_F(tool_test, PrintsRepliesThatCameBeforeAFailure) {
    expect_outcome(orvix({"call", "test.service", "partial"}), 8, "{\n\t\"partial\": \"yes\"\n}\n",
                   "orvix: call test.service partial failed: Operation not supported\n");
}

TEST_F(tool_test, ExitsWith4ForAnUnknownObject) {
    expect_outcome(orvix({"call", "no.such.object", "echo", "{}"}), 4, "",
                   "orvix: call no.such.object echo failed: Not found\n");
}

TEST_F(tool_test, ExitsWith3ForAnUnknownMethod) {
    expect_outcome(orvix({"call", "test.service", "no_such_method"}), 3, "",
                   "orvix: call test.service no_such_method failed: Method not found\n");
}

TEST_F(tool_test, ExitsWith12ForArgumentsThatAreNoJson) {
    const auto got = orvix({"call", "test.service", "echo", R"({"a": )"});
    EXPECT_EQ(got.status, 12);
    EXPECT_EQ(got.out, "");
    const std::string prefix =
        "orvix: call test.service echo failed: the arguments are no valid JSON: ";
    EXPECT_EQ(got.err.substr(0, prefix.size()), prefix) << got.err;
    EXPECT_EQ(got.err.find('\n'), got.err.size() - 1) << got.err;
}

TEST_F(tool_test, ExitsWith12ForArgumentsThatAreNoObject) {
    const std::string prefix =
        "orvix: call test.service echo failed: the arguments must be a JSON object ";
    expect_outcome(orvix({"call", "test.service", "echo", "[1, 2]"}), 12, "",
                   prefix + "(got array)\n");
    expect_outcome(orvix({"call", "test.service", "echo", "\"text\""}), 12, "",
                   prefix + "(got string)\n");
    expect_outcome(orvix({"call", "test.service", "echo", "42"}), 12, "",
                   prefix + "(got number)\n");
}

TEST_F(tool_test, ExitsWith10WhenTheBusCannotBeReached) {
    const std::string absent = std::string(daemon_on_test_socket.dir) + "/absent.sock";
    expect_outcome(run({ORVIX_TOOL, "-s", absent, "call", "test.service", "echo"}), 10, "",
                   "orvix: cannot connect to the bus at " + absent + "\n");
}

TEST_F(tool_test, ExitsWith7WhenTheAnswerDoesNotComeInTime) {
    const auto started = steady_clock::now();
    expect_outcome(orvix({"-t", "1", "call", "test.service", "silent"}), 7, "",
                   "orvix: call test.service silent failed: Request timed out\n");
    EXPECT_LT(steady_clock::now() - started, seconds(15));
}

TEST_F(tool_test, WaitsForALateAnswer) {
    expect_outcome(orvix({"-t", "0", "call", "test.service", "later"}), 0,
                   "{\n\t\"late\": \"yes\"\n}\n", "");
    expect_outcome(orvix({"-t", "2147483", "call", "test.service", "later"}), 0,
                   "{\n\t\"late\": \"yes\"\n}\n", "");
}

TEST(tool_usage_test, ExitsWith2AndPrintsTheUsage) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"call"},
        {"call", "test.service"},
        {"call", "test.service", "echo", "{}", "extra"},
        {"list"},
        {"list", "test.service", "echo"},
        {"-t", "soon", "call", "test.service", "echo"},
        {"-t", "", "call", "test.service", "echo"},
        {"-t", "-1", "call", "test.service", "echo"},
        {"-t", "1x", "call", "test.service", "echo"},
        {"-t", "2147484", "call", "test.service", "echo"},
        {"-t", "99999999999999999999", "call", "test.service", "echo"},
    };
    for (const auto& args : wrong) {
        std::vector<std::string> argv{ORVIX_TOOL};
        argv.insert(argv.end(), args.begin(), args.end());
        SCOPED_TRACE(::testing::PrintToString(args));
        expect_outcome(run(argv), 2, "", usage_text);
    }
}

TEST(tool_usage_test, ReportsAnUnknownOptionBeforeTheUsage) {
    expect_outcome(run({ORVIX_TOOL, "-x", "call", "test.service", "echo"}), 2, "",
                   std::string(ORVIX_TOOL) + ": invalid option -- 'x'\n" + usage_text);
    expect_outcome(run({ORVIX_TOOL, "call", "test.service", "echo", "-s"}), 2, "",
                   std::string(ORVIX_TOOL) + ": option requires an argument -- 's'\n" + usage_text);
}

// The example service, shared by the tests of its calls.
class greeter_test : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        service = std::make_unique<background>(
            std::vector<std::string>{ORVIX_GREETER_SERVICE, "-s", bus_socket()});
        ASSERT_TRUE(service->wait_for_output("orvix.greeter published\n"));
    }
    static void TearDownTestSuite() { service.reset(); }

    static std::unique_ptr<background> service;
};

std::unique_ptr<background> greeter_test::service;

TEST_F(greeter_test, GreetsByNameAfterItsDelay) {
    expect_outcome(orvix({"call", "orvix.greeter", "greet", R"({"name": "tester"})"}), 0,
                   "{\n\t\"greeting\": \"Hello, tester!\"\n}\n", "");
}

TEST_F(greeter_test, GreetsTheWorldWithoutAName) {
    expect_outcome(orvix({"-S", "call", "orvix.greeter", "greet"}), 0,
                   "{\"greeting\":\"Hello, world!\"}\n", "");
    expect_outcome(orvix({"-S", "call", "orvix.greeter", "greet", R"({"nickname": "x"})"}), 0,
                   "{\"greeting\":\"Hello, world!\"}\n", "");
    expect_outcome(orvix({"-S", "call", "orvix.greeter", "greet", R"({"name": 5})"}), 0,
                   "{\"greeting\":\"Hello, world!\"}\n", "");
}

TEST_F(greeter_test, AnswersGreetingsThatOverlap) {
    std::vector<std::future<outcome>> calls;
    for (const char* name : {"one", "two", "three"}) {
        const std::string args = std::string(R"({"name": ")") + name + "\"}";
        calls.push_back(std::async(std::launch::async, [args] {
            return orvix({"-S", "call", "orvix.greeter", "greet", args});
        }));
    }
    expect_outcome(calls[0].get(), 0, "{\"greeting\":\"Hello, one!\"}\n", "");
    expect_outcome(calls[1].get(), 0, "{\"greeting\":\"Hello, two!\"}\n", "");
    expect_outcome(calls[2].get(), 0, "{\"greeting\":\"Hello, three!\"}\n", "");
}

TEST_F(greeter_test, Counts) {
    expect_outcome(orvix({"-S", "call", "orvix.greeter", "count", R"({"to": 3})"}), 0,
                   "{\"n\":1}\n{\"n\":2}\n{\"n\":3}\n", "");
    expect_outcome(orvix({"call", "orvix.greeter", "count", R"({"to": 0})"}), 0, "", "");
}

TEST_F(greeter_test, RefusesACountWithoutItsLimit) {
    // A method with a policy cannot take a call without arguments: libubox cannot parse
    // an empty message.
    expect_outcome(orvix({"call", "orvix.greeter", "count"}), 12, "",
                   "orvix: call orvix.greeter count failed: Parsing message data failed\n");
    expect_outcome(orvix({"call", "orvix.greeter", "count", R"({"from": 1})"}), 2, "",
                   "orvix: call orvix.greeter count failed: Invalid argument\n");
    expect_outcome(orvix({"call", "orvix.greeter", "count", R"({"to": "three"})"}), 2, "",
                   "orvix: call orvix.greeter count failed: Invalid argument\n");
}

TEST_F(greeter_test, ClientPrintsTheGreeting) {
    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_socket(), "example client"}), 0,
                   "greeting: Hello, example client!\n", "");
    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_socket()}), 0, "greeting: Hello, world!\n",
                   "");
}

TEST(greeter_service_test, StopsOnSigtermAfterAnsweringCalls) {
    background service({ORVIX_GREETER_SERVICE, "-s", bus_socket()});
    ASSERT_TRUE(service.wait_for_output("orvix.greeter published\n"));
    expect_outcome(orvix({"-S", "call", "orvix.greeter", "greet", R"({"name": "you"})"}), 0,
                   "{\"greeting\":\"Hello, you!\"}\n", "");
    EXPECT_EQ(service.stop(), 0);
    EXPECT_EQ(service.printed(), "orvix.greeter published\norvix.greeter stopped\n");
    expect_outcome(orvix({"call", "orvix.greeter", "greet", "{}"}), 4, "",
                   "orvix: call orvix.greeter greet failed: Not found\n");
}

TEST(greeter_service_test, PublishesAgainAfterTheDaemonRestarts) {
    struct private_daemon {
        test_daemon d{};
        ~private_daemon() { test_daemon_cleanup(&d); }
    } own;
    ASSERT_EQ(test_daemon_start(&own.d, ORVIX_TEST_UBUSD), 0);
    background service({ORVIX_GREETER_SERVICE, "-s", own.d.socket});
    ASSERT_TRUE(service.wait_for_output("orvix.greeter published\n"));
    test_daemon_kill(&own.d);
    ASSERT_EQ(test_daemon_restart(&own.d), 0);
    // Reconnection is paced by the service's back-off: poll until it has come back.
    outcome got;
    for (const auto deadline = steady_clock::now() + seconds(20);;) {
        got = run({ORVIX_TOOL, "-s", own.d.socket, "-S", "call", "orvix.greeter", "count",
                   R"({"to": 1})"});
        if (got.status != 4 || steady_clock::now() >= deadline)
            break;
        usleep(100000);
    }
    expect_outcome(got, 0, "{\"n\":1}\n", "");
    EXPECT_EQ(service.stop(), 0);
}

TEST(greeter_client_test, FailsWhenTheServiceIsAbsent) {
    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_socket(), "nobody"}), 1, "",
                   "orvix.greeter greet failed: Not found\n");
}

TEST(greeter_client_test, FailsWhenTheBusCannotBeReached) {
    const std::string absent = std::string(daemon_on_test_socket.dir) + "/absent.sock";
    const auto got = run({ORVIX_GREETER_CLIENT, "-s", absent});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err.rfind("cannot connect to the bus", 0), 0u) << got.err;
}

} // namespace
