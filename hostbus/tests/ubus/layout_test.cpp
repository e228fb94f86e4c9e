// Programs built against the device's headers share these structs with libubox and libubus,
// so they must be laid out as the device's are: on LP64, and on the 32-bit ABIs of ARM and
// MIPS, whose libc may have a 32-bit or a 64-bit time_t.
#include <gtest/gtest.h>

#include <libubus.h>

#include <csignal>
#include <cstddef>
#include <ctime>

namespace {

#define SIZE(T) #T, sizeof(T)
#define AT(T, m) #T "." #m, offsetof(T, m)

struct aligned64 {
    char c;
    int64_t v;
};

TEST(Layout, MatchesTheDevice) {
    const bool lp64 = sizeof(void*) == 8 && sizeof(long) == 8;
    // Not i386, where 64-bit members are 4-byte aligned.
    const bool ilp32 = sizeof(void*) == 4 && sizeof(long) == 4 && offsetof(aligned64, v) == 8;
    if (!lp64 && !ilp32)
        GTEST_SKIP() << "neither LP64 nor ILP32 with 8-byte aligned 64-bit members";
    // On ILP32 both follow the libc: the timeval in uloop_timeout moves what comes after it.
    const bool t32 = sizeof(time_t) == 4;
    const size_t sa = sizeof(struct sigaction);

    const struct {
        const char* what;
        size_t got, lp64, ilp32;
    } fields[] = {
        {SIZE(blob_buf), 32, 16},
        {AT(blob_buf, buflen), 16, 8},
        {SIZE(blobmsg_policy), 16, 8},

        {SIZE(uloop_fd), 16, 12},
        {AT(uloop_fd, fd), 8, 4},
        {AT(uloop_fd, flags), 15, 11},
        {SIZE(uloop_timeout), 48, size_t(t32 ? 24 : 32)},
        {AT(uloop_timeout, pending), 16, 8},
        {AT(uloop_timeout, cb), 24, 12},
        {AT(uloop_timeout, time), 32, 16},
        {SIZE(uloop_process), 40, 20},
        {AT(uloop_process, pid), 32, 16},
        {SIZE(uloop_interval), 32, 32},
        {AT(uloop_interval, expirations), 8, 8},
        {AT(uloop_interval, priv), 16, 16},
        {SIZE(uloop_signal), 192, 8 + sa + 12},
        {AT(uloop_signal, orig), 16, 8},
        {AT(uloop_signal, pending), 168, 8 + sa},
        {AT(uloop_signal, cb), 176, 8 + sa + 4},
        {AT(uloop_signal, signo), 184, 8 + sa + 8},

        {SIZE(avl_node), 56, 28},
        {AT(avl_node, key), 40, 20},
        {AT(avl_node, leader), 49, 25},
        {SIZE(avl_tree), 48, 28},
        {AT(avl_tree, comp), 32, 20},

        {SIZE(ubus_msghdr), 8, 8},
        {AT(ubus_msghdr, peer), 4, 4},
        {SIZE(ubus_method), 48, 24},
        {AT(ubus_method, mask), 16, 8},
        {AT(ubus_method, n_policy), 40, 20},
        {SIZE(ubus_object_type), 32, 16},
        {AT(ubus_object_type, methods), 16, 8},
        {SIZE(ubus_object), 120, 60},
        {AT(ubus_object, name), 56, 28},
        {AT(ubus_object, id), 64, 32},
        {AT(ubus_object, type), 80, 40},
        {AT(ubus_object, has_subscribers), 96, 48},
        {AT(ubus_object, n_methods), 112, 56},
        {SIZE(ubus_object_data), 24, 16},
        {SIZE(ubus_request_data), 56, 36},
        {AT(ubus_request_data, seq), 8, 8},
        {AT(ubus_request_data, acl), 16, 12},
        {AT(ubus_request_data, deferred), 40, 24},
        {AT(ubus_request_data, fd), 44, 28},
        {AT(ubus_request_data, req_fd), 48, 32},
        {SIZE(ubus_request), 104, 60},
        {AT(ubus_request, status_code), 32, 16},
        {AT(ubus_request, notify), 39, 23},
        {AT(ubus_request, peer), 40, 24},
        {AT(ubus_request, seq), 44, 28},
        {AT(ubus_request, raw_data_cb), 48, 32},
        {AT(ubus_request, fd), 80, 48},
        {AT(ubus_request, ctx), 88, 52},
        {AT(ubus_request, priv), 96, 56},
        {SIZE(ubus_event_handler), 128, 64},
        {SIZE(ubus_subscriber), 160, 80},
        {AT(ubus_subscriber, cb), 136, 68},
        {SIZE(ubus_context), 344, size_t(t32 ? 192 : 200)},
        {AT(ubus_context, objects), 16, 8},
        {AT(ubus_context, pending), 64, 36},
        {AT(ubus_context, sock), 80, 44},
        {AT(ubus_context, pending_timer), 96, 56},
        {AT(ubus_context, local_id), 144, size_t(t32 ? 80 : 88)},
        {AT(ubus_context, request_seq), 148, size_t(t32 ? 84 : 92)},
        {AT(ubus_context, cancel_poll), 150, size_t(t32 ? 86 : 94)},
        {AT(ubus_context, stack_depth), 152, size_t(t32 ? 88 : 96)},
        {AT(ubus_context, connection_lost), 160, size_t(t32 ? 92 : 100)},
        {AT(ubus_context, monitor_cb), 168, size_t(t32 ? 96 : 104)},
        {AT(ubus_context, msgbuf), 176, size_t(t32 ? 100 : 108)},
        {AT(ubus_context, msgbuf_data_len), 192, size_t(t32 ? 112 : 120)},
        {AT(ubus_context, msgbuf_reduction_counter), 196, size_t(t32 ? 116 : 124)},
        {AT(ubus_context, auto_subscribers), 200, size_t(t32 ? 120 : 128)},
        {AT(ubus_context, auto_subscribe_event_handler), 216, size_t(t32 ? 128 : 136)},
        {AT(ubus_context, request_handler), 200, size_t(t32 ? 120 : 128)},
    };
    for (const auto& f : fields)
        EXPECT_EQ(f.got, lp64 ? f.lp64 : f.ilp32) << f.what;
}

} // namespace
