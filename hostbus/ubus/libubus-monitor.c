/* Watching the bus: registering with the daemon's object 3, and taking its reports. */
#include "libubus-internal.h"

#define UBUS_MONITOR_TIMEOUT_MS 1000

/* The argument is the build buffer itself, which by the time the call copies it holds the
 * call's own OBJID and METHOD: the device's library sends those twice, the second time as
 * DATA, and the daemon ignores them. The buffer never shrinks below its first 256 bytes, so
 * it does not move while the copy is made. */
static int ubus_monitor_command(struct ubus_context* ctx, const char* method) {
    blob_buf_init(&ubus_build_buf, 0);
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, method, ubus_build_buf.head, NULL, NULL,
                       UBUS_MONITOR_TIMEOUT_MS);
}

int ubus_monitor_start(struct ubus_context* ctx) {
    return ubus_monitor_command(ctx, "add");
}

int ubus_monitor_stop(struct ubus_context* ctx) {
    return ubus_monitor_command(ctx, "remove");
}

void ubus_process_monitor(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                          struct blob_attr* msg) {
    if (ctx->monitor_cb)
        ctx->monitor_cb(ctx, be16_to_cpu(hdr->seq), msg);
}
