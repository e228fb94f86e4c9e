// Watches the greeter service: prints the notifications of its object "orvix.greeter" and
// the events about it, each on one line, until SIGINT or SIGTERM.
//
//   greeter_watcher [-s SOCKET]
//
// notification greeted NAME   from the object, to which it stays subscribed while the
//                             service comes and goes
// event TYPE NAME             events whose type begins with "orvix.greeter."

#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

std::string name_in(const orvix::blob::table& data) {
    const auto name = data.find("name");
    return name != data.end() && name->second.type() == typeid(std::string)
               ? name->second.get<std::string>()
               : "?";
}

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
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);

    auto loop = orvix::loops::simple_event_loop::create();
    auto& bus = orvix::client::get_instance(loop);
    bus.set_socket_path(socket);

    // Both are registered with the daemon on every connection, for as long as their
    // links are not released.
    auto subscription = bus.subscribe(
        "orvix.greeter", [](const std::string& type,
                            const std::shared_ptr<orvix::client::exchange_ctx>& notification) {
            std::cout << "notification " << type << " " << name_in(notification->args) << std::endl;
        });
    auto listening =
        bus.listen("orvix.greeter.*", [](const std::string& type, const orvix::blob::table& data) {
            std::cout << "event " << type << " " << name_in(data) << std::endl;
        });
    auto reconnect = bus.auto_connect(
        [](long long attempt) { return std::chrono::seconds(attempt < 5 ? attempt : 5); });

    while (!stop_requested)
        loop->run_for(std::chrono::milliseconds(200));
    bus.cancel();
    return 0;
}
