// Runs the orvix tool and the example programs as processes against a private bus daemon
// and checks what they print and how they exit.

#include <orvix_testing/process.h>
#include <orvix_testing/test_daemon.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <future>
#include <regex>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <termios.h>
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

// Starts `argv` with its standard input, output and error on the given descriptors.
pid_t spawn(const args& argv, int in, int out, int err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
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

// A memory file holding `text`: a program's input or output that needs no reader meanwhile.
int memory_file(const std::string& text) {
    const int fd = memfd_create("io", MFD_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::system_error(errno, std::generic_category(), "memory file");
    }
    lseek(fd, 0, SEEK_SET);
    return fd;
}

// Everything readable from `fd` without waiting.
std::string drain(int fd) {
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) {
        text.append(chunk, static_cast<std::size_t>(n));
    }
    return text;
}

// A terminal in raw mode, so that what is written to it comes out unchanged.
struct terminal {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    int slave = -1;
    terminal() {
        if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0) {
            slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
            termios raw{};
            tcgetattr(slave, &raw);
            cfmakeraw(&raw);
            tcsetattr(slave, TCSANOW, &raw);
            fcntl(master, F_SETFL, O_NONBLOCK);
        }
    }
    ~terminal() {
        close(slave);
        close(master);
    }
};

// Runs a program to its end with `input` on its standard input; the limit only keeps a
// broken program from hanging. With `tty` its standard error is a terminal.
outcome run(const args& argv, const std::string& input = {}, terminal* tty = nullptr) {
    const int in = memory_file(input);
    const int out = memory_file({});
    const int err = tty ? -1 : memory_file({});
    outcome result;
    result.status =
        reap(spawn(argv, in, out, tty ? tty->slave : err), steady_clock::now() + seconds(20));
    lseek(out, 0, SEEK_SET);
    result.out = drain(out);
    if (!tty) {
        lseek(err, 0, SEEK_SET);
    }
    result.err = drain(tty ? tty->master : err);
    for (const int fd : {in, out, err}) {
        close(fd);
    }
    return result;
}

outcome orvix(args arguments, const std::string& input = {}, terminal* tty = nullptr) {
    arguments.insert(arguments.begin(), {ORVIX_TOOL, "-s", bus_daemon.socket});
    return run(arguments, input, tty);
}

struct tool_case {
    args arguments;
    outcome expected;
    std::string input = {};
};

void expect_outcomes(const std::vector<tool_case>& cases) {
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        expect_outcome(orvix(c.arguments, c.input), c.expected);
    }
}

using background = orvix_testing::process;

background tool(const args& arguments) {
    args argv{ORVIX_TOOL, "-s", bus_daemon.socket};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return background(argv);
}

// SIGTERM; the exit status once everything it printed has been read.
int stop(background& program) {
    program.signal(SIGTERM);
    program.read_until("", 10000);
    return program.wait();
}

// What `program` printed after the last `probe`: listeners and monitors say nothing when
// they are ready, so tests repeat a probe until one is heard.
std::string after_probes(const background& program, const std::string& probe) {
    const std::string& out = program.output();
    const auto at = out.rfind(probe);
    return at == std::string::npos ? out : out.substr(at + probe.size());
}

// Repeats `probe` until every program has printed `heard`.
void probe_until(const std::function<void()>& probe,
                 const std::vector<std::pair<background*, std::string>>& heard) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        probe();
        bool all = true;
        for (const auto& [program, text] : heard) {
            all = program->read_until(text, 200) && all;
        }
        if (all) {
            return;
        }
    }
    ADD_FAILURE() << "never heard: " << heard.front().second;
}

std::string usage() {
    return std::string("Usage: ") + ORVIX_TOOL +
           " [<options>] <command> [arguments...]\n"
           "Options:\n"
           " -s <socket>:\t\tSet the unix domain socket to connect to\n"
           " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
           " -S:\t\t\tUse simplified output (for scripts)\n"
           " -v:\t\t\tMore verbose output\n"
           " -m <type>:\t\t(for monitor): include a specific message type\n"
           "\t\t\t(can be used more than once)\n"
           " -M <r|t>\t\t(for monitor): only capture received or transmitted traffic\n"
           "\n"
           "Commands:\n"
           " - list [<path>]\t\t\tList objects\n"
           " - call <path> <method> [<message>]\tCall an object method\n"
           " - subscribe <path> [<path>...]\tSubscribe to object(s) notifications\n"
           " - listen [<path>...]\t\t\tListen for events\n"
           " - send <type> [<message>]\t\tSend an event\n"
           " - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
           " - monitor\t\t\t\tMonitor ubus traffic\n"
           "\n";
}

background test_service(const std::string& path = "test.service") {
    return background({ORVIX_TEST_SERVICE, bus_daemon.socket, path});
}

TEST(tool_test, RefusesAsTheDeviceToolDoesAndAnswersHelpAndVersion) {
    const std::string self = ORVIX_TOOL;
    const std::string invalid = self + ": invalid option -- 'x'\n";
    const std::string unreachable = "Failed to connect to ubus\n";
    expect_outcomes({
        {{}, {1, "", usage()}},
        {{"-S"}, {1, "", usage()}},
        {{"-x", "list"}, {1, "", invalid + usage()}},
        {{"call", "test.service", "echo", "-x"}, {1, "", invalid + usage()}},
        {{"list", "-t"}, {1, "", self + ": option requires an argument -- 't'\n" + usage()}},
        {{"-m", "monitor", "monitor"}, {1, "", usage()}},
        {{"-m", "invoke", "-m", "invok", "monitor"}, {1, "", usage()}},
        {{"-M", "x", "monitor"}, {1, "", usage()}},
        {{"-M", "", "monitor"}, {1, "", usage()}},
        {{"nonsense"}, {254, "", usage()}},
        {{"-S", "nonsense"}, {254, "", usage()}},
        {{"--", "--help"}, {254, "", usage()}},
        {{"list", "a", "b"}, {254, "", usage()}},
        {{"call"}, {254, "", usage()}},
        {{"call", "test.service"}, {254, "", usage()}},
        {{"call", "test.service", "echo", "{}", "more"}, {254, "", usage()}},
        {{"send"}, {254, "", usage()}},
        {{"send", "e", "{}", "more"}, {254, "", usage()}},
        {{"wait_for"}, {254, "", usage()}},
        {{"subscribe"}, {255, "", "You need to specify an object to subscribe to\n"}},
        {{"-S", "subscribe"}, {255, "", ""}},
        {{"-s", absent_socket(), "list"}, {255, "", unreachable}},
        {{"-s", absent_socket(), "nonsense"}, {255, "", unreachable}},
        {{"-S", "-s", absent_socket(), "list"}, {255, "", ""}},
        {{"--help"}, {0, usage(), ""}},
        {{"list", "--version"}, {0, "orvix " ORVIX_VERSION_TEXT "\n", ""}},
    });
}

TEST(tool_test, ListsPathsAndSignatures) {
    background one = test_service();
    background other = test_service("test.other");
    ASSERT_TRUE(one.read_until("ready\n", 20000));
    ASSERT_TRUE(other.read_until("ready\n", 20000));
    // The id is the daemon's random choice.
    const auto verbose = orvix({"-v", "list", "test.service"});
    std::smatch id;
    ASSERT_TRUE(std::regex_search(verbose.out, id, std::regex("^'test.service' @([0-9a-f]{8})\n")))
        << verbose.out;
    const std::string signature = "\t\"none\":{}\n\t\"echo\":{}\n\t\"many\":{}\n\t\"fail\":{}\n"
                                  "\t\"partial\":{}\n\t\"garbled\":{}\n\t\"silent\":{}\n"
                                  "\t\"later\":{\"ms\":\"Integer\",\"size\":\"Integer\"}\n"
                                  "\t\"big\":{\"ms\":\"Integer\",\"size\":\"Integer\"}\n";
    expect_outcomes({
        {{"list"}, {0, "test.other\ntest.service\n", ""}},
        {{"list", "test.*"}, {0, "test.other\ntest.service\n", ""}},
        {{"list", "test.service"}, {0, "test.service\n", ""}},
        {{"list", "-v", "test.service"}, {0, id[0].str() + signature, ""}},
        {{"-S", "-v", "list", "test.service"}, {0, "test.service\n", ""}},
        {{"list", "nope"}, {4, "", "Command failed: Not found\n"}},
        {{"-S", "list", "nope"}, {4, "", ""}},
        {{"list", ""}, {2, "", "Command failed: Invalid argument\n"}},
    });
}

TEST(tool_test, CallsPrintEachReplyInWireOrderAndFailAsTheDeviceToolDoes) {
    background one = test_service();
    ASSERT_TRUE(one.read_until("ready\n", 20000));
    const std::string nested = R"({"a":[[[]]],"b":[{}],"c":{"d":null}})";
    const std::string failed = "Command failed: ubus call test.service ";
    expect_outcomes({
        {{"call", "test.service", "echo", nested},
         {0,
          "{\n\t\"a\": [\n\t\t[\n\t\t\t[\n\t\t\t\t\n\t\t\t]\n\t\t]\n\t],\n"
          "\t\"b\": [\n\t\t{\n\t\t\t\n\t\t}\n\t],\n\t\"c\": {\n\t\t\"d\": null\n\t}\n}\n",
          ""}},
        {{"-S", "call", "test.service", "echo", nested}, {0, nested + "\n", ""}},
        {{"call", "test.service", "echo", R"({"z": 1, "a": "x", "m": 1.5})", "-S"},
         {0, "{\"z\":1,\"a\":\"x\",\"m\":1.500000}\n", ""}},
        {{"-S", "call", "test.service", "echo", "-"},
         {0, "{\"from\":\"stdin\"}\n", ""},
         R"({"from": "stdin"})"},
        {{"call", "test.service", "echo"}, {0, "{\n\t\n}\n", ""}},
        {{"-S", "call", "test.service", "many"},
         {0, "{\"index\":0}\n{\"index\":1}\n{\"index\":2}\n", ""}},
        {{"call", "test.service", "none"}, {0, "", ""}},
        {{"-t", "0", "-S", "call", "test.service", "later"}, {0, "{\"late\":\"yes\"}\n", ""}},
        {{"call", "test.service", "fail"}, {250, "", failed + "fail (Permission denied)\n"}},
        {{"-S", "call", "test.service", "fail"}, {6, "", ""}},
        {{"call", "test.service", "partial"},
         {248, "{\n\t\"partial\": \"yes\"\n}\n", failed + "partial (Operation not supported)\n"}},
        {{"-S", "call", "test.service", "partial"}, {8, "{\"partial\":\"yes\"}\n", ""}},
        {{"call", "test.service", "nomethod", "{}"},
         {253, "", failed + "nomethod {} (Method not found)\n"}},
        {{"-t", "1", "call", "test.service", "silent"},
         {249, "", failed + "silent (Request timed out)\n"}},
        {{"call", "test.service", "echo", "[1, 2]"},
         {244, "", failed + "echo [1, 2] (Parsing message data failed)\n"}},
        {{"call", "test.service", "echo", "-"},
         {244, "", failed + "echo - (Parsing message data failed)\n"},
         "nothing"},
        {{"-S", "call", "test.service", "echo", "[1, 2]"}, {12, "", ""}},
        // The message is read before the object is looked up.
        {{"call", "nope", "echo", "1"},
         {244, "", "Command failed: ubus call nope echo 1 (Parsing message data failed)\n"}},
        {{"call", "nope", "echo"}, {4, "", "Command failed: Not found\n"}},
        {{"call", "", "echo"}, {2, "", "Command failed: Invalid argument\n"}},
    });

    // With stderr on a terminal the exit status is the status itself.
    const struct {
        args arguments;
        outcome expected;
    } on_terminal[] = {
        {{"call", "test.service", "fail"}, {6, "", "Command failed: Permission denied\n"}},
        {{"call", "test.service", "echo", "[1]"},
         {12, "", "Command failed: Parsing message data failed\n"}},
        {{"-S", "call", "test.service", "fail"}, {6, "", ""}},
    };
    for (const auto& c : on_terminal) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        terminal tty;
        if (tty.slave < 0) {
            GTEST_SKIP() << "no terminal to run on";
        }
        expect_outcome(orvix(c.arguments, {}, &tty), c.expected);
    }
}

TEST(tool_test, ListenPrintsEveryMatchingEventOnceUntilStopped) {
    background listener = tool({"listen", "orvix.test.*", "orvix.test.twice"});
    const std::string probe = "{ \"orvix.test.probe\": {} }\n";
    probe_until([] { orvix({"send", "orvix.test.probe"}); }, {{&listener, probe}});
    expect_outcomes({
        {{"send", "orvix.test.twice", R"({"k": "v", "n": [1, true, null, 2.5]})"}, {0, "", ""}},
        {{"send", "other.event", "{}"}, {0, "", ""}},
        {{"send", "orvix.test.\"q\"\t"}, {0, "", ""}},
        {{"send", "orvix.test.stdin", "-"}, {0, "", ""}, R"({"from": "stdin"})"},
        {{"send", "ubus.x"}, {6, "", "Command failed: Permission denied\n"}},
        {{"-S", "send", "ubus.x"}, {6, "", ""}},
        {{"send", "orvix.test.bad", "[1]"},
         {12, "", "Command failed: Parsing message data failed\n"}},
        {{"send", "orvix.test.bad", "-"},
         {12, "", "Command failed: Parsing message data failed\n"}},
        {{"send", "orvix.test.last"}, {0, "", ""}},
    });
    const std::string last = "{ \"orvix.test.last\": {} }\n";
    EXPECT_TRUE(listener.read_until(last, 10000));
    EXPECT_EQ(stop(listener), 0);
    EXPECT_EQ(after_probes(listener, probe),
              "{ \"orvix.test.twice\": {\"k\":\"v\",\"n\":[1,true,null,2.500000]} }\n"
              "{ \"orvix.test.\"q\"\t\": {} }\n"
              "{ \"orvix.test.stdin\": {\"from\":\"stdin\"} }\n" +
                  last);

    expect_outcomes({
        {{"-t", "1", "listen"}, {0, "", ""}},
        {{"listen", "a", ""},
         {255, "", "Error while registering for event '': Permission denied\n"}},
        {{"-S", "listen", ""}, {255, "", ""}},
    });
}

TEST(tool_test, SubscribePrintsTheNotificationsOfEveryObject) {
    background one = test_service();
    background greeter({ORVIX_GREETER_SERVICE, "-s", bus_daemon.socket});
    ASSERT_TRUE(one.read_until("ready\n", 20000));
    ASSERT_TRUE(greeter.read_until("orvix.greeter published\n", 20000));
    background subscriber = tool({"subscribe", "test.service", "orvix.greeter"});
    const std::string probe = "{ \"greeted\": {\"name\":\"probe\"} }\n";
    probe_until(
        [] {
            orvix({"call", "orvix.greeter", "greet", R"({"name": "probe"})"});
        },
        {{&subscriber, probe}});
    orvix({"call", "orvix.greeter", "greet", R"({"name": "a \"b\""})"});
    const std::string greeted = "{ \"greeted\": {\"name\":\"a \\\"b\\\"\"} }\n";
    EXPECT_TRUE(subscriber.read_until(greeted, 10000));
    EXPECT_EQ(stop(subscriber), 0);
    EXPECT_EQ(after_probes(subscriber, probe), greeted);

    expect_outcomes({
        {{"-t", "1", "subscribe", "test.service"}, {0, "", ""}},
        {{"subscribe", "nope"}, {255, "", "Error while registering for event 'nope': Not found\n"}},
        {{"subscribe", "test.service", "nope"},
         {255, "", "Error while registering for event 'test.service': Not found\n"}},
        {{"-S", "subscribe", "nope"}, {255, "", ""}},
    });
}

TEST(tool_test, WaitForEndsOnceEveryObjectIsThere) {
    background one = test_service();
    ASSERT_TRUE(one.read_until("ready\n", 20000));
    const std::string timed_out = "Command failed: Request timed out\n";
    expect_outcomes({
        {{"wait_for", "test.service"}, {0, "", ""}},
        {{"-t", "0", "wait_for", "test.service", "test.service"}, {0, "", ""}},
        {{"-t", "0", "wait_for", "test.service", "nope"}, {7, "", timed_out}},
        {{"-t", "soon", "wait_for", "nope"}, {7, "", timed_out}},
        // Names are paths, not patterns.
        {{"-t", "0", "wait_for", "test.*"}, {7, "", timed_out}},
        {{"-S", "-t", "1", "wait_for", "nope"}, {7, "", ""}},
    });

    auto waiting = std::async(std::launch::async, [] {
        return orvix({"-t", "20", "wait_for", "test.late", "test.service"});
    });
    usleep(300000);
    background late = test_service("test.late");
    expect_outcome(waiting.get(), {0, "", ""});
}

// The pattern of one monitor line; `dir_client_peer` and `json` are regular expressions.
std::string report(const std::string& dir_client_peer, const std::string& type,
                   const std::string& json) {
    return dir_client_peer + " " + std::string(14 - type.size(), ' ') + type + ": " + json;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        lines.push_back(text.substr(at, end - at));
    }
    return lines;
}

// The first of `lines` from `from` on that matches `pattern`; lines.size() if none does.
std::size_t find_line(const std::vector<std::string>& lines, const std::string& pattern,
                      std::size_t from = 0, std::smatch* match = nullptr) {
    std::smatch unused;
    for (; from < lines.size(); ++from) {
        if (std::regex_match(lines[from], match ? *match : unused, std::regex(pattern))) {
            break;
        }
    }
    return from;
}

TEST(tool_test, MonitorPrintsTheTrafficItIsAskedFor) {
    background one = test_service();
    ASSERT_TRUE(one.read_until("ready\n", 20000));
    background all = tool({"monitor"});
    background sent = tool({"monitor", "-m", "invoke", "-M", "tx"});
    background received = tool({"-m", "data", "-m", "status", "-M", "r", "monitor"});
    const std::string probe = R"("data":{"probe":1})";
    probe_until(
        [] {
            orvix({"-S", "call", "test.service", "echo", R"({"probe":1})"});
        },
        {{&all, probe}, {&sent, probe}, {&received, probe}});
    orvix({"-S", "call", "test.service", "echo", R"({"n":1})"});
    for (auto* monitor : {&all, &sent, &received}) {
        EXPECT_TRUE(monitor->read_until(R"("data":{"n":1})", 10000));
        EXPECT_EQ(stop(*monitor), 0);
    }

    // The call of {"n":1}, from its caller's hello to its forwarding to the service.
    const std::string id = "[0-9a-f]{8}";
    const std::string objid = R"("objid":-?[0-9]+)";
    const auto lines = lines_of(all.output());
    std::smatch call;
    const auto invoke = find_line(lines,
                                  report("<- (" + id + ") #" + id, "invoke",
                                         "\\{" + objid + R"(,"method":"echo","data":\{"n":1\}\})"),
                                  0, &call);
    ASSERT_LT(invoke, lines.size()) << all.output();
    const std::string caller = call[1];
    const auto hello = find_line(lines, report("-> " + caller + " #" + caller, "hello", "\\{\\}"));
    const auto lookup = find_line(
        lines, report("<- " + caller + " #00000000", "lookup", R"(\{"objpath":"test.service"\})"),
        hello);
    EXPECT_LT(lookup, invoke) << all.output();
    EXPECT_LT(
        find_line(lines,
                  report("-> " + id + " #" + caller, "invoke",
                         "\\{" + objid +
                             R"(,"method":"echo","data":\{"n":1\},"user":"root","group":"root"\})"),
                  invoke),
        lines.size())
        << all.output();
    // Its own remove goes out as it stops.
    EXPECT_TRUE(
        std::regex_match(lines.back(), std::regex(report("<- " + id + " #00000003", "invoke",
                                                         R"(\{"objid":3,"method":"remove",.*)"))))
        << all.output();

    // The filtered ones print only what they were asked for.
    for (const auto& line : lines_of(sent.output())) {
        EXPECT_TRUE(
            std::regex_match(line, std::regex(report("-> " + id + " #" + id, "invoke", ".*"))))
            << line;
    }
    const auto replies = lines_of(received.output());
    for (const auto& line : replies) {
        EXPECT_TRUE(
            std::regex_match(line, std::regex(report("<- " + id + " #" + id, "data", ".*"))) ||
            std::regex_match(line, std::regex(report("<- " + id + " #" + id, "status", ".*"))))
            << line;
    }
    EXPECT_LT(find_line(replies, report("<- " + id + " #" + id, "data",
                                        "\\{" + objid + R"(,"data":\{"n":1\}\})")),
              replies.size())
        << received.output();
}

TEST(greeter_test, AnswersCallsAndStopsOnSigterm) {
    background service({ORVIX_GREETER_SERVICE, "-s", bus_daemon.socket});
    ASSERT_TRUE(service.read_until("orvix.greeter published\n", 20000));
    const std::string failed = "Command failed: ubus call orvix.greeter count ";
    expect_outcomes({
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
        {{"call", "orvix.greeter", "count"}, {244, "", failed + "(Parsing message data failed)\n"}},
        // An invalid argument earns the usage text too.
        {{"call", "orvix.greeter", "count", R"({"from": 1})"},
         {254, "",
          failed +
              R"({"from": 1} (Invalid argument))"
              "\n" +
              usage()}},
        {{"-S", "call", "orvix.greeter", "count", R"({"to": "three"})"}, {2, "", ""}},
    });

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
                   {4, "", "Command failed: Not found\n"});
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
