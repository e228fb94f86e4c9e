#include <cstdint>
#include <cstdio>

#include <libubus.h>

#include "commands.h"

namespace orvix {
namespace tool {
namespace {

int print_notification(ubus_context*, ubus_object*, ubus_request_data*, const char* method,
                       blob_attr* msg) {
    print_delivery(method, msg);
    return UBUS_STATUS_OK;
}

int subscribe_all(settings& s, ubus_subscriber* subscriber, int argc, char** argv) {
    if (const int ret = ubus_register_subscriber(s.ctx, subscriber); ret) {
        return ret;
    }
    for (int i = 0; i < argc; ++i) {
        std::uint32_t id = 0;
        if (const int ret = ubus_lookup_id(s.ctx, argv[i], &id); ret) {
            return ret;
        }
        if (const int ret = ubus_subscribe(s.ctx, subscriber, id); ret) {
            return ret;
        }
    }
    return UBUS_STATUS_OK;
}

} // namespace

int subscribe(settings& s, int argc, char** argv) {
    if (argc < 1) {
        if (!s.simple) {
            std::fprintf(stderr, "You need to specify an object to subscribe to\n");
        }
        return -1;
    }
    ubus_subscriber subscriber{};
    subscriber.cb = print_notification;
    if (const int ret = subscribe_all(s, &subscriber, argc, argv); ret) {
        // The device tool names the first path whichever one failed.
        if (!s.simple) {
            std::fprintf(stderr, "Error while registering for event '%s': %s\n", argv[0],
                         ubus_strerror(ret));
        }
        return -1;
    }
    run_loop(s.ctx, loop_limit(s.timeout));
    return 0;
}

} // namespace tool
} // namespace orvix
