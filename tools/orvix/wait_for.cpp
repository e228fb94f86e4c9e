#include <algorithm>
#include <cstring>
#include <vector>

#include <libubus.h>

#include "commands.h"

namespace orvix {
namespace tool {
namespace {

// The paths not seen yet; a path named twice is waited for once.
using missing_paths = std::vector<const char*>;

void seen(missing_paths& missing, const char* path) {
    missing.erase(std::remove_if(missing.begin(), missing.end(),
                                 [path](const char* p) { return std::strcmp(p, path) == 0; }),
                  missing.end());
}

struct waiter {
    ubus_event_handler added;
    missing_paths* missing;
};

enum { ADDED_PATH, ADDED_MAX };
const blobmsg_policy added_policy[ADDED_MAX] = {{"path", BLOBMSG_TYPE_STRING}};

void object_added(ubus_context*, ubus_event_handler* ev, const char*, blob_attr* msg) {
    blob_attr* tb[ADDED_MAX];
    blobmsg_parse(added_policy, ADDED_MAX, tb, blob_data(msg), blob_len(msg));
    if (!tb[ADDED_PATH]) {
        return;
    }
    missing_paths& missing = *container_of(ev, waiter, added)->missing;
    seen(missing, blobmsg_get_string(tb[ADDED_PATH]));
    if (missing.empty()) {
        uloop_end();
    }
}

void object_listed(ubus_context*, ubus_object_data* obj, void* priv) {
    seen(*static_cast<missing_paths*>(priv), obj->path);
}

} // namespace

int wait_for(settings& s, int argc, char** argv) {
    if (argc < 1) {
        return usage_error;
    }
    missing_paths missing(argv, argv + argc);
    // Listening first, then looking: an object added in between is not missed.
    waiter w{};
    w.added.cb = object_added;
    w.missing = &missing;
    if (const int ret = ubus_register_event_handler(s.ctx, &w.added, "ubus.object.add"); ret) {
        return ret;
    }
    ubus_lookup(s.ctx, nullptr, object_listed, &missing);
    if (missing.empty()) {
        return UBUS_STATUS_OK;
    }
    // Unlike listen, -t 0 gives up at once.
    run_loop(s.ctx, milliseconds(s.timeout));
    return missing.empty() ? UBUS_STATUS_OK : UBUS_STATUS_TIMEOUT;
}

} // namespace tool
} // namespace orvix
