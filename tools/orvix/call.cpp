#include <orvix/blob/json.h>

#include <cstdint>
#include <cstdio>
#include <unistd.h>

#include <libubus.h>

#include "commands.h"
#include "message.h"

namespace orvix {
namespace tool {
namespace {

void print_reply(ubus_request* req, int, blob_attr* msg) {
    const auto layout = *static_cast<const blob::json_layout*>(req->priv);
    std::printf("%s\n", blob::to_json(msg, layout).c_str());
}

// For a log that is read later, the device tool says which call failed and exits with
// 256 - status; on a terminal it leaves the message to main.
int failed(const settings& s, int argc, char** argv, int status) {
    if (status == 0 || s.simple || isatty(STDERR_FILENO)) {
        return status;
    }
    std::fprintf(stderr, "Command failed: ubus call ");
    for (int i = 0; i < argc; ++i) {
        std::fprintf(stderr, "%s ", argv[i]);
    }
    std::fprintf(stderr, "(%s)\n", ubus_strerror(status));
    return -status;
}

} // namespace

int call(settings& s, int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        return usage_error;
    }
    message_buffer message;
    if (argc == 3 && !add_message(message.get(), argv[2])) {
        return failed(s, argc, argv, UBUS_STATUS_PARSE_ERROR);
    }
    // An object the daemon hides from us still looks up fine, without an id: the call
    // then goes to id 0, as the device tool's does.
    std::uint32_t id = 0;
    if (const int ret = ubus_lookup_id(s.ctx, argv[0], &id); ret != 0) {
        return ret;
    }
    blob::json_layout layout = s.simple ? blob::json_layout::compact : blob::json_layout::indented;
    return failed(s, argc, argv,
                  ubus_invoke(s.ctx, id, argv[1], message.head(), print_reply, &layout,
                              milliseconds(s.timeout)));
}

} // namespace tool
} // namespace orvix
