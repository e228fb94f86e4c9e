/* Hand-written blobmsg code for the typical benchmark messages: what a C program
 * would write instead of using the library. */
#ifndef ORVIX_BENCH_BLOB_C_H
#define ORVIX_BENCH_BLOB_C_H

#include <stdbool.h>
#include <stdint.h>

/* Inside the block: libubox's own headers declare no C linkage. */
#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/blobmsg.h>

/* {"id": 7, "name": "bench", "flag": true, "count": 123456789012 (u64),
 *  "path": "/var/run/bench.sock"} */
struct flat_msg {
    uint32_t id;
    const char* name;
    bool flag;
    uint64_t count;
    const char* path;
};

/* {"name": "eth0", "config": {"mtu": 1500, "enabled": true,
 *  "addrs": ["10.0.0.1", "10.0.0.2", "fe80::1"]}} */
struct nested_msg {
    const char* name;
    uint32_t mtu;
    bool enabled;
    const char* addrs[4];
    int n_addrs;
};

void c_encode_flat(struct blob_buf* b);
void c_encode_nested(struct blob_buf* b);
/* Return 0 when every field was found with its type. */
int c_decode_flat(struct blob_attr* msg, struct flat_msg* out);
int c_decode_nested(struct blob_attr* msg, struct nested_msg* out);

#ifdef __cplusplus
}
#endif

#endif
