#include <cstdint>
#include <cstdio>
#include <optional>

#include <libubus.h>

#include "commands.h"
#include "json_output.h"

namespace orvix {
namespace tool {
namespace {

// The monitor callback carries no pointer of ours.
const monitor_filter* active_filter = nullptr;

const blob_attr_info report_policy[UBUS_MONITOR_MAX] = {
    /* CLIENT */ {BLOB_ATTR_INT32, 0, 0, nullptr},
    /* PEER */ {BLOB_ATTR_INT32, 0, 0, nullptr},
    /* SEND */ {BLOB_ATTR_INT8, 0, 0, nullptr},
    /* SEQ */ {BLOB_ATTR_INT32, 0, 0, nullptr},
    /* TYPE */ {BLOB_ATTR_INT32, 0, 0, nullptr},
    /* DATA */ {BLOB_ATTR_NESTED, 0, 0, nullptr},
};

bool wanted(const monitor_filter& filter, blob_attr* body) {
    blob_attr* tb[UBUS_MONITOR_MAX];
    blob_parse(body, tb, report_policy, UBUS_MONITOR_MAX);
    // A report the formatter calls invalid is shown whatever the filters say.
    for (const int needed : {UBUS_MONITOR_CLIENT, UBUS_MONITOR_PEER, UBUS_MONITOR_SEND,
                             UBUS_MONITOR_TYPE, UBUS_MONITOR_DATA}) {
        if (!tb[needed]) {
            return true;
        }
    }
    const bool sent = blob_get_u8(tb[UBUS_MONITOR_SEND]) != 0;
    if (filter.direction >= 0 && sent != (filter.direction != 0)) {
        return false;
    }
    const std::uint32_t type = blob_get_u32(tb[UBUS_MONITOR_TYPE]);
    return filter.types == 0 || (type < 32 && (filter.types >> type & 1U));
}

void print_report(ubus_context*, std::uint32_t, blob_attr* body) {
    if (!wanted(*active_filter, body)) {
        return;
    }
    std::printf("%s\n", format_monitor_report(body).c_str());
    std::fflush(stdout);
}

} // namespace

int monitor(settings& s, int, char**) {
    active_filter = &s.filter;
    s.ctx->monitor_cb = print_report;
    if (const int ret = ubus_monitor_start(s.ctx); ret) {
        return ret;
    }
    run_loop(s.ctx, std::nullopt);
    ubus_monitor_stop(s.ctx);
    return UBUS_STATUS_OK;
}

} // namespace tool
} // namespace orvix
