#include <optional>

#include <libubus.h>

#include "commands.h"

namespace orvix {
namespace tool {

void run_loop(ubus_context* ctx, std::optional<int> timeout_ms) {
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout*) { uloop_end(); };
    if (timeout_ms) {
        uloop_timeout_set(&timer, *timeout_ms);
    }
    ubus_add_uloop(ctx);
    // uloop's own SIGTERM and SIGINT handlers, installed when the tool connected, end the
    // loop; those signals therefore end the command normally.
    uloop_run();
    uloop_timeout_cancel(&timer);
}

int milliseconds(int seconds) {
    return static_cast<int>(static_cast<unsigned>(seconds) * 1000U);
}

} // namespace tool
} // namespace orvix
