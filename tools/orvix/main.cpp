// orvix: calls a method of a ubus object from the command line.
//
//   orvix [-s SOCKET] [-t SECONDS] [-S] call OBJECT METHOD [JSON]
//
// Prints every reply as a JSON document. On failure prints what failed on stderr and
// exits with the ubus status of the failure (2 for a usage error, 10 when the bus
// cannot be reached, 12 for arguments that are not a JSON object).

#include "json_mapping.h"

#include <orvix/client.h>
#include <orvix/error.h>
#include <orvix/loops/simple_event_loop.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

constexpr int usage_status = 2;

// ubus carries a call's timeout as an int of milliseconds; longer waits would also
// overflow the clocks that time them.
constexpr long longest_timeout = INT_MAX / 1000;

int usage(const char* self) {
    std::cerr << "usage: " << self << " [-s SOCKET] [-t SECONDS] [-S] call OBJECT METHOD [JSON]\n"
              << "  -s SOCKET   the bus daemon's socket (default: libubus's default)\n"
              << "  -t SECONDS  how long to wait for the answer, 0 for ever (default: 30)\n"
              << "  -S          print each reply on one line\n";
    return usage_status;
}

// The exit status for a failure: the ubus status itself, or 1 for the library's own
// outcomes (which have no ubus status).
int exit_status(const std::error_code& ec) {
    if (ec.category() == orvix::error::msg_category::get_inst())
        return ec.value();
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string socket;
    long timeout = 30;
    auto layout = orvix::tool::json_layout::indented;

    for (int opt; (opt = getopt(argc, argv, "s:t:S")) != -1;) {
        switch (opt) {
        case 's':
            socket = optarg;
            break;
        case 't': {
            char* end = nullptr;
            errno = 0;
            timeout = std::strtol(optarg, &end, 10);
            if (*optarg == '\0' || *end != '\0' || errno != 0 || timeout < 0 ||
                timeout > longest_timeout)
                return usage(argv[0]);
            break;
        }
        case 'S':
            layout = orvix::tool::json_layout::compact;
            break;
        default:
            return usage(argv[0]);
        }
    }
    int rest = argc - optind;
    if (rest < 3 || rest > 4 || std::string(argv[optind]) != "call")
        return usage(argv[0]);
    const std::string object = argv[optind + 1];
    const std::string method = argv[optind + 2];

    std::multimap<std::string, orvix::blob::attr> args;
    if (rest == 4) {
        try {
            args = orvix::tool::parse_table(argv[optind + 3]);
        } catch (const std::invalid_argument& e) {
            std::cerr << "orvix: call " << object << " " << method << " failed: " << e.what()
                      << "\n";
            return static_cast<int>(orvix::error::msg::parse_error);
        }
    }

    // A bus that goes away mid-call is reported as an error, not as a SIGPIPE death.
    std::signal(SIGPIPE, SIG_IGN);

    auto loop = orvix::loops::simple_event_loop::create();
    auto& bus = orvix::client::get_instance(loop);
    bus.set_socket_path(socket);

    int status = 0;
    bool done = false;
    orvix::utils::link connecting, calling;
    connecting = bus.connect([&](const std::error_code& ec) {
        if (ec) {
            // The library reports every failure to connect alike, so its text adds nothing.
            std::cerr << "orvix: cannot connect to the bus"
                      << (socket.empty() ? std::string() : " at " + socket) << "\n";
            status = static_cast<int>(orvix::error::msg::connection_failed);
            done = true;
            loop->stop();
            return;
        }
        calling = bus.invoke(
            object, method, args,
            [&](const std::list<orvix::blob::attr>& replies, const std::error_code& ec) {
                for (const auto& reply : replies)
                    std::cout << orvix::tool::to_json_text(reply.get<orvix::blob::table>(), layout)
                              << "\n";
                if (ec) {
                    std::cerr << "orvix: call " << object << " " << method
                              << " failed: " << ec.message() << "\n";
                    status = exit_status(ec);
                }
                done = true;
                loop->stop();
            },
            std::chrono::seconds(timeout));
    });

    if (timeout == 0)
        loop->run();
    else
        // The invoke's own timeout ends the call; this bound only covers connecting.
        loop->run_for(std::chrono::seconds(timeout + 10));

    if (!done) {
        std::cerr << "orvix: call " << object << " " << method << " got no answer\n";
        status = static_cast<int>(orvix::error::msg::timeout);
    }
    bus.cancel();
    std::cout.flush();
    return status;
}
