// Calls the greeter service once and prints its replies.
//
//   greeter_client [-s SOCKET] [NAME]

#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    std::string socket;
    for (int opt; (opt = getopt(argc, argv, "s:")) != -1;) {
        if (opt != 's') {
            std::cerr << "usage: " << argv[0] << " [-s SOCKET] [NAME]\n";
            return 2;
        }
        socket = optarg;
    }
    std::string name = optind < argc ? argv[optind] : "world";

    std::signal(SIGPIPE, SIG_IGN);

    auto loop = orvix::loops::simple_event_loop::create();
    auto& bus = orvix::client::get_instance(loop);
    bus.set_socket_path(socket);

    int status = 1;
    // Kept so that the calls could be cancelled; dropping a link cancels nothing.
    orvix::utils::link connecting, calling;

    connecting = bus.connect([&](const std::error_code& ec) {
        if (ec) {
            std::cerr << "cannot connect to the bus: " << ec.message() << "\n";
            loop->stop();
            return;
        }
        calling = bus.invoke(
            "orvix.greeter", "greet", {{"name", orvix::blob::attr(name)}},
            [&](const std::list<orvix::blob::attr>& replies, const std::error_code& ec) {
                for (const auto& reply : replies)
                    for (const auto& field : reply.get<orvix::blob::table>())
                        std::cout << field.first << ": " << field.second.get<std::string>() << "\n";
                if (ec)
                    std::cerr << "orvix.greeter greet failed: " << ec.message() << "\n";
                else
                    status = 0;
                loop->stop();
            },
            std::chrono::seconds(10));
    });

    loop->run_for(std::chrono::seconds(15));
    bus.cancel();
    return status;
}
