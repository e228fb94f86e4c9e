// Runs the orvix tool and the example programs as processes against a private bus daemon
// and checks what they print and how they exit.

#include <orvix_testing/process.h>
#include <orvix_testing/test_daemon.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

extern char** environ;

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using args = std::vector<std::string>;

test_daemon bus_daemon;

class daemon_environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(test_daemon_start(&bus_daemon, ORVIX_TEST_UBUSD), 0) << ORVIX_TEST_UBUSD;
    }
    void TearDown() override { test_daemon_cleanup(&bus_daemon); }
};

::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new daemon_environment);

std::string absent_socket() {
    return std::string(bus_daemon.dir) + "/absent.sock";
}

// Starts `argv` with its stdout and stderr on the given descriptors.
pid_t spawn(const args& argv, int out, int err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    std::vector<char*> argp;
    for (const auto& arg : argv) {
        argp.push_back(const_cast<char*>(arg.c_str()));
    }
    argp.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::system_error(rc, std::generic_category(), "posix_spawn " + argv[0]);
    }
    return pid;
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
    int status = -1;
    std::string out;
    std::string err;
};

void expect_outcome(const outcome& got, const outcome& expected) {
    EXPECT_EQ(got.status, expected.status);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(got.err, expected.err);
}

// Runs a program to its end, its output in memory files that need no reader meanwhile;
// the limit only keeps a broken program from hanging.
outcome run(const args& argv) {
    const int out = memfd_create("stdout", MFD_CLOEXEC);
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    outcome result;
    result.status = reap(spawn(argv, out, err), steady_clock::now() + seconds(20));
    for (const auto& [fd, text] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
        char chunk[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(fd, chunk, sizeof chunk, at)) > 0; at += n) {
            text->append(chunk, static_cast<std::size_t>(n));
        }
        close(fd);
    }
    return result;
}

outcome orvix(args arguments) {
    arguments.insert(arguments.begin(), {ORVIX_TOOL, "-s", bus_daemon.socket});
    return run(arguments);
}

using background = orvix_testing::process;

// SIGTERM; the exit status once everything it printed has been read.
int stop(background& program) {
    program.signal(SIGTERM);
    program.read_until("", 10000);
    return program.wait();
}

const std::string usage_text =
    std::string("usage: ") + ORVIX_TOOL +
    " [-s SOCKET] [-t SECONDS] [-S] call OBJECT METHOD [JSON]\n"
    "  -s SOCKET   the bus daemon's socket (default: libubus's default)\n"
    "  -t SECONDS  how long to wait for the answer, 0 for ever "
    "(default: 30)\n"
    "  -S          print each reply on one line\n";

TEST(tool_test, PrintsRepliesAndExitsWithTheCallsStatus) {
    background service({ORVIX_TEST_SERVICE, bus_daemon.socket});
    ASSERT_TRUE(service.read_until("ready\n", 20000));
    const std::string failed = "orvix: call test.service ";
    const std::string not_object = " failed: the arguments must be a JSON object (got ";
    const struct {
        args arguments;
        outcome expected;
    } cases[] = {
        {{"call", "test.service", "echo",
          R"({"big": 5000000000, "flag": true, "name": "a \"quoted\"\ttab", "negative": -7,
              "nested": {"empty": {}, "list": [1, "two", null, []], "ratio": 2.25}})"},
         {0,
          "{\n\t\"big\": 5000000000,\n\t\"flag\": true,\n\t\"name\": \"a \\\"quoted\\\"\\ttab\",\n"
          "\t\"negative\": -7,\n\t\"nested\": {\n\t\t\"empty\": {\n\t\t\t\n\t\t},\n"
          "\t\t\"list\": [\n\t\t\t1,\n\t\t\t\"two\",\n\t\t\tnull,\n\t\t\t[\n\t\t\t\t\n\t\t\t]\n"
          "\t\t],\n\t\t\"ratio\": 2.250000\n\t}\n}\n",
          ""}},
        {{"call", "test.service", "echo"}, {0, "{\n\t\n}\n", ""}},
        {{"-S", "call", "test.service", "echo"}, {0, "{}\n", ""}},
        {{"-S", "call", "test.service", "echo", R"({"a": 1, "b": "x", "c": [true, {}]})"},
         {0, "{\"a\":1,\"b\":\"x\",\"c\":[true,{}]}\n", ""}},
        {{"call", "test.service", "echo", R"({"a": 1})", "-S"}, {0, "{\"a\":1}\n", ""}},
        {{"call", "test.service", "many"},
         {0, "{\n\t\"index\": 0\n}\n{\n\t\"index\": 1\n}\n{\n\t\"index\": 2\n}\n", ""}},
        {{"-S", "call", "test.service", "many"},
         {0, "{\"index\":0}\n{\"index\":1}\n{\"index\":2}\n", ""}},
        {{"call", "test.service", "none"}, {0, "", ""}},
        {{"call", "test.service", "fail"}, {6, "", failed + "fail failed: Permission denied\n"}},
        {{"call", "test.service", "partial"},
         {8, "{\n\t\"partial\": \"yes\"\n}\n",
          failed + "partial failed: Operation not supported\n"}},
        {{"call", "no.such.object", "echo", "{}"},
         {4, "", "orvix: call no.such.object echo failed: Not found\n"}},
        {{"call", "test.service", "no_such_method"},
         {3, "", failed + "no_such_method failed: Method not found\n"}},
        {{"call", "test.service", "echo", "[1, 2]"},
         {12, "", failed + "echo" + not_object + "array)\n"}},
        {{"call", "test.service", "echo", "\"text\""},
         {12, "", failed + "echo" + not_object + "string)\n"}},
        {{"call", "test.service", "echo", "42"},
         {12, "", failed + "echo" + not_object + "number)\n"}},
        {{"-t", "1", "call", "test.service", "silent"},
         {7, "", failed + "silent failed: Request timed out\n"}},
        {{"-t", "0", "call", "test.service", "later"}, {0, "{\n\t\"late\": \"yes\"\n}\n", ""}},
        {{"-t", "2147483", "call", "test.service", "later"},
         {0, "{\n\t\"late\": \"yes\"\n}\n", ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        expect_outcome(orvix(c.arguments), c.expected);
    }

    const auto no_json = orvix({"call", "test.service", "echo", R"({"a": )"});
    EXPECT_EQ(no_json.status, 12);
    EXPECT_EQ(no_json.out, "");
    EXPECT_EQ(no_json.err.rfind(failed + "echo failed: the arguments are no valid JSON: ", 0), 0u)
        << no_json.err;
    EXPECT_EQ(no_json.err.find('\n'), no_json.err.size() - 1) << no_json.err;

    expect_outcome(run({ORVIX_TOOL, "-s", absent_socket(), "call", "test.service", "echo"}),
                   {10, "", "orvix: cannot connect to the bus at " + absent_socket() + "\n"});
}

TEST(tool_usage_test, ExitsWith2AndPrintsTheUsage) {
    const std::string self = ORVIX_TOOL;
    const struct {
        args arguments;
        std::string complaint;
    } cases[] = {
        {{}, ""},
        {{"call"}, ""},
        {{"call", "test.service"}, ""},
        {{"call", "test.service", "echo", "{}", "extra"}, ""},
        {{"list"}, ""},
        {{"list", "test.service", "echo"}, ""},
        {{"-t", "soon", "call", "test.service", "echo"}, ""},
        {{"-t", "", "call", "test.service", "echo"}, ""},
        {{"-t", "-1", "call", "test.service", "echo"}, ""},
        {{"-t", "1x", "call", "test.service", "echo"}, ""},
        {{"-t", "2147484", "call", "test.service", "echo"}, ""},
        {{"-t", "99999999999999999999", "call", "test.service", "echo"}, ""},
        {{"-x", "call", "test.service", "echo"}, self + ": invalid option -- 'x'\n"},
        {{"call", "test.service", "echo", "-s"}, self + ": option requires an argument -- 's'\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        args argv{ORVIX_TOOL};
        argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
        expect_outcome(run(argv), {2, "", c.complaint + usage_text});
    }
}

TEST(greeter_test, AnswersCallsAndStopsOnSigterm) {
    background service({ORVIX_GREETER_SERVICE, "-s", bus_daemon.socket});
    ASSERT_TRUE(service.read_until("orvix.greeter published\n", 20000));
    const std::string failed = "orvix: call orvix.greeter count failed: ";
    const struct {
        args arguments;
        outcome expected;
    } cases[] = {
        {{"call", "orvix.greeter", "greet", R"({"name": "tester"})"},
         {0, "{\n\t\"greeting\": \"Hello, tester!\"\n}\n", ""}},
        {{"-S", "call", "orvix.greeter", "greet"}, {0, "{\"greeting\":\"Hello, world!\"}\n", ""}},
        {{"-S", "call", "orvix.greeter", "greet", R"({"nickname": "x"})"},
         {0, "{\"greeting\":\"Hello, world!\"}\n", ""}},
        {{"-S", "call", "orvix.greeter", "greet", R"({"name": 5})"},
         {0, "{\"greeting\":\"Hello, world!\"}\n", ""}},
        {{"-S", "call", "orvix.greeter", "count", R"({"to": 3})"},
         {0, "{\"n\":1}\n{\"n\":2}\n{\"n\":3}\n", ""}},
        {{"call", "orvix.greeter", "count", R"({"to": 0})"}, {0, "", ""}},
        // A method with a policy cannot take a call without arguments: libubox cannot
        // parse an empty message.
        {{"call", "orvix.greeter", "count"}, {12, "", failed + "Parsing message data failed\n"}},
        {{"call", "orvix.greeter", "count", R"({"from": 1})"},
         {2, "", failed + "Invalid argument\n"}},
        {{"call", "orvix.greeter", "count", R"({"to": "three"})"},
         {2, "", failed + "Invalid argument\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        expect_outcome(orvix(c.arguments), c.expected);
    }

    // Greetings that overlap are each answered.
    std::vector<std::future<outcome>> calls;
    for (const std::string name : {"one", "two", "three"}) {
        calls.push_back(std::async(std::launch::async, [name] {
            return orvix({"-S", "call", "orvix.greeter", "greet", R"({"name": ")" + name + "\"}"});
        }));
    }
    for (const std::string name : {"one", "two", "three"}) {
        expect_outcome(calls.front().get(), {0, "{\"greeting\":\"Hello, " + name + "!\"}\n", ""});
        calls.erase(calls.begin());
    }

    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_daemon.socket, "example client"}),
                   {0, "greeting: Hello, example client!\n", ""});
    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_daemon.socket}),
                   {0, "greeting: Hello, world!\n", ""});

    EXPECT_EQ(stop(service), 0);
    EXPECT_EQ(service.output(), "orvix.greeter published\norvix.greeter stopped\n");
    expect_outcome(orvix({"call", "orvix.greeter", "greet", "{}"}),
                   {4, "", "orvix: call orvix.greeter greet failed: Not found\n"});
    expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_daemon.socket, "nobody"}),
                   {1, "", "orvix.greeter greet failed: Not found\n"});
    const auto unreachable = run({ORVIX_GREETER_CLIENT, "-s", absent_socket()});
    EXPECT_EQ(unreachable.status, 1);
    EXPECT_EQ(unreachable.out, "");
    EXPECT_EQ(unreachable.err.rfind("cannot connect to the bus", 0), 0u) << unreachable.err;
}

TEST(greeter_test, PublishesAgainAfterTheDaemonRestarts) {
    struct private_daemon {
        test_daemon d{};
        ~private_daemon() { test_daemon_cleanup(&d); }
    } own;
    ASSERT_EQ(test_daemon_start(&own.d, ORVIX_TEST_UBUSD), 0);
    background service({ORVIX_GREETER_SERVICE, "-s", own.d.socket});
    ASSERT_TRUE(service.read_until("orvix.greeter published\n", 20000));
    test_daemon_kill(&own.d);
    ASSERT_EQ(test_daemon_restart(&own.d), 0);
    // The service says nothing when it publishes again, paced by its back-off: calls are
    // repeated until it is there.
    outcome got;
    for (const auto deadline = steady_clock::now() + seconds(20);;) {
        got = run({ORVIX_TOOL, "-s", own.d.socket, "-S", "call", "orvix.greeter", "count",
                   R"({"to": 1})"});
        if (got.status != 4 || steady_clock::now() >= deadline) {
            break;
        }
        usleep(100000);
    }
    expect_outcome(got, {0, "{\"n\":1}\n", ""});
    EXPECT_EQ(stop(service), 0);
}

TEST(greeter_test, TheWatcherHearsOfEveryGreetingAsTheServiceComesAndGoes) {
    background watcher({ORVIX_GREETER_WATCHER, "-s", bus_daemon.socket});
    std::string heard;
    for (const std::string name : {"first", "second"}) {
        background service({ORVIX_GREETER_SERVICE, "-s", bus_daemon.socket});
        ASSERT_TRUE(service.read_until("orvix.greeter published\n", 20000));
        expect_outcome(run({ORVIX_GREETER_CLIENT, "-s", bus_daemon.socket, name}),
                       {0, "greeting: Hello, " + name + "!\n", ""});
        heard += "notification greeted " + name + "\nevent orvix.greeter.greeted " + name + "\n";
        EXPECT_TRUE(watcher.read_until(heard, 20000)) << watcher.output();
        EXPECT_EQ(stop(service), 0);
    }
    EXPECT_EQ(stop(watcher), 0);
    EXPECT_EQ(watcher.output(), heard);
}

} // namespace
