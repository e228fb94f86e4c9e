#include <orvix/blob/json.h>

#include <cstdio>

#include <libubus.h>

#include "commands.h"
#include "message.h"

namespace orvix {
namespace tool {
namespace {

void print_event(ubus_context*, ubus_event_handler*, const char* type, blob_attr* msg) {
    print_delivery(type, msg);
}

} // namespace

void print_delivery(const char* name, const blob_attr* data) {
    // The name goes out as it came, unescaped, as the device tool prints it.
    std::printf("{ \"%s\": %s }\n", name, blob::to_json(data).c_str());
    std::fflush(stdout);
}

int listen(settings& s, int argc, char** argv) {
    static const char* const every_event[] = {"*"};
    const char* const* patterns = argc > 0 ? argv : every_event;
    const int count = argc > 0 ? argc : 1;
    // One handler for all patterns: the daemon delivers an event once per handler, however
    // many of its patterns match.
    ubus_event_handler listener{};
    listener.cb = print_event;
    for (int i = 0; i < count; ++i) {
        if (const int ret = ubus_register_event_handler(s.ctx, &listener, patterns[i]); ret) {
            if (!s.simple) {
                std::fprintf(stderr, "Error while registering for event '%s': %s\n", patterns[i],
                             ubus_strerror(ret));
            }
            return -1;
        }
    }
    run_loop(s.ctx, loop_limit(s.timeout));
    return 0;
}

int send(settings& s, int argc, char** argv) {
    if (argc < 1 || argc > 2) {
        return usage_error;
    }
    message_buffer message;
    if (argc == 2 && !add_message(message.get(), argv[1])) {
        return UBUS_STATUS_PARSE_ERROR;
    }
    return ubus_send_event(s.ctx, argv[0], message.head());
}

} // namespace tool
} // namespace orvix
