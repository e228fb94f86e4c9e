// A service that publishes the object "orvix.greeter" and answers its calls later.
//
//   greeter_service [-s SOCKET]
//
// greet [{"name": string}] one reply {"greeting": "Hello, <name>!"} ("world" without a
//                          name), sent a second later; takes every argument as it comes.
//                          Then it tells the object's subscribers (notification "greeted")
//                          and the whole bus (event "orvix.greeter.greeted") whom it greeted
// count {"to": int}        the replies {"n": 1} ... {"n": to}, then success; its argument
//                          policy makes the client refuse calls without "to"
//
// It connects with automatic reconnection and runs until SIGINT or SIGTERM.

#include <orvix/client.h>
#include <orvix/error.h>
#include <orvix/loops/simple_event_loop.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <typeindex>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

using call_ptr = std::shared_ptr<orvix::client::exchange_ctx>;

} // namespace

int main(int argc, char** argv) {
    std::string socket;
    for (int opt; (opt = getopt(argc, argv, "s:")) != -1;) {
        if (opt != 's') {
            std::cerr << "usage: " << argv[0] << " [-s SOCKET]\n";
            return 2;
        }
        socket = optarg;
    }

    // The bus may go away while a reply is being written: report that as an error
    // instead of dying of SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);

    auto loop = orvix::loops::simple_event_loop::create();
    auto& bus = orvix::client::get_instance(loop);
    bus.set_socket_path(socket);

    auto greet = [&](const call_ptr& call) {
        std::string name = "world";
        // Without a policy the arguments arrive as they were sent: check the kind.
        auto arg = call->args.find("name");
        if (arg != call->args.end() && arg->second.type() == typeid(std::string))
            name = arg->second.get<std::string>();

        // Answered a second later, after this handler has returned: after() keeps the
        // context, and so the call, open until then.
        call->after(std::chrono::seconds(1), [&bus, name](const call_ptr& later) {
            later->send({{"greeting", orvix::blob::attr("Hello, " + name + "!")}}, {});
            later->respond(orvix::error::msg::success);
            const orvix::blob::table greeted{{"name", orvix::blob::attr(name)}};
            // A negative timeout: the subscribers are not asked to answer.
            bus.notify("orvix.greeter", "greeted", greeted, {}, std::chrono::milliseconds(-1));
            bus.send_event("orvix.greeter.greeted", greeted, {});
        });
    };

    auto count = [](const call_ptr& call) {
        auto arg = call->args.find("to");
        if (arg == call->args.end()) {
            call->respond(orvix::error::msg::invalid_argument);
            return;
        }
        int to = arg->second.get<int>();
        for (int n = 1; n <= to; ++n)
            call->send({{"n", orvix::blob::attr(n)}}, {});
        // Dropping the context without respond() completes the call with success.
    };

    const orvix::client::method_table methods{
        {"greet", {greet, {}}},
        {"count", {count, {{"to", typeid(unsigned int)}}}},
    };

    // Publish once the first connection stands; the client registers the object again
    // by itself after every reconnection.
    bool published = false;
    auto state_link = bus.notify_on_state_change([&](orvix::client::state s) {
        if (s != orvix::client::state::connected || published)
            return;
        published = true;
        bus.add_object("orvix.greeter", methods, [&](const std::error_code& ec) {
            if (ec) {
                std::cerr << "publishing orvix.greeter failed: " << ec.message() << "\n";
                published = false;
                return;
            }
            std::cout << "orvix.greeter published" << std::endl;
        });
    });

    auto reconnect = bus.auto_connect(
        [](long long attempt) { return std::chrono::seconds(attempt < 5 ? attempt : 5); });

    while (!stop_requested)
        loop->run_for(std::chrono::milliseconds(200));

    bus.cancel();
    std::cout << "orvix.greeter stopped" << std::endl;
    return 0;
}
