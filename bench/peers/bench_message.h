/* The message every benchmark call carries, from the C peers and the library alike: a few
 * scalars and a string. */
#ifndef ORVIX_BENCH_MESSAGE_H
#define ORVIX_BENCH_MESSAGE_H

#include <libubox/blobmsg.h>

static inline void bench_message(struct blob_buf* b) {
    blob_buf_init(b, 0);
    blobmsg_add_u32(b, "id", 7);
    blobmsg_add_string(b, "name", "bench");
    blobmsg_add_u8(b, "flag", 1);
}

#endif
