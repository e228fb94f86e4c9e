/* A raw libubus caller for the benchmarks.
 *   bench_caller SOCKET OBJECT METHOD CALLS INFLIGHT
 *     makes CALLS calls of METHOD with the benchmark message, keeping INFLIGHT of them
 *     outstanding (ubus_invoke_async driven by uloop), and prints
 *     "calls_per_s P50_US P99_US".
 *   bench_caller mem SOCKET OBJECT COUNT
 *     leaves COUNT calls of "silent" pending and prints the heap bytes they hold, per call. */
#define _GNU_SOURCE
#include <libubus.h>

#include "bench_message.h"

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

struct slot {
    struct ubus_request req;
    double started;
};

static struct ubus_context* ctx;
static struct blob_buf b;
static uint32_t object_id;
static const char* method;
static long calls, started, finished, failed;
static double* latencies;

static double now_us(void) {
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec * 1e6 + (double)ts.tv_nsec / 1e3;
}

static void start(struct slot* s);

static void on_complete(struct ubus_request* req, int status) {
    struct slot* s = (struct slot*)req;

    if (status != UBUS_STATUS_OK)
        failed++;
    latencies[finished++] = now_us() - s->started;
    if (started < calls)
        start(s);
    else if (finished == calls)
        uloop_end();
}

static void start(struct slot* s) {
    started++;
    s->started = now_us();
    if (ubus_invoke_async(ctx, object_id, method, b.head, &s->req) != UBUS_STATUS_OK) {
        fprintf(stderr, "bench_caller: invoke failed\n");
        exit(1);
    }
    s->req.complete_cb = on_complete;
    ubus_complete_request_async(ctx, &s->req);
}

static int by_value(const void* a, const void* b) {
    const double x = *(const double*)a, y = *(const double*)b;

    return (x > y) - (x < y);
}

static int run_calls(long inflight) {
    struct slot* slots = calloc((size_t)inflight, sizeof(*slots));
    double begin, elapsed;

    latencies = calloc((size_t)calls, sizeof(*latencies));
    if (!slots || !latencies)
        return 1;
    begin = now_us();
    for (long i = 0; i < inflight && started < calls; i++)
        start(&slots[i]);
    uloop_run();
    elapsed = now_us() - begin;
    if (failed) {
        fprintf(stderr, "bench_caller: %ld calls failed\n", failed);
        return 1;
    }
    qsort(latencies, (size_t)calls, sizeof(*latencies), by_value);
    printf("%.1f %.2f %.2f\n", (double)calls * 1e6 / elapsed, latencies[calls / 2],
           latencies[calls * 99 / 100]);
    free(slots);
    free(latencies);
    return 0;
}

static int run_mem(long count) {
    struct mallinfo2 before, after;
    uint32_t echo_id = object_id;

    before = mallinfo2();
    for (long i = 0; i < count; i++) {
        struct ubus_request* req = malloc(sizeof(*req));

        if (!req || ubus_invoke_async(ctx, object_id, "silent", b.head, req) != UBUS_STATUS_OK)
            return 1;
        ubus_complete_request_async(ctx, req);
    }
    /* Answered only once every call before it has reached the service. */
    if (ubus_invoke(ctx, echo_id, "echo", b.head, NULL, NULL, 10000) != UBUS_STATUS_OK)
        return 1;
    after = mallinfo2();
    printf("%.1f\n", (double)(after.uordblks - before.uordblks) / (double)count);
    return 0;
}

int main(int argc, char** argv) {
    const bool mem = argc == 5 && !strcmp(argv[1], "mem");
    int rc;

    if (argc != 6 && !mem)
        return 2;
    uloop_init();
    ctx = ubus_connect(argv[mem ? 2 : 1]);
    if (!ctx)
        return 1;
    ubus_add_uloop(ctx);
    if (ubus_lookup_id(ctx, argv[mem ? 3 : 2], &object_id) != UBUS_STATUS_OK)
        return 1;
    bench_message(&b);
    if (mem) {
        rc = run_mem(atol(argv[4]));
    } else {
        method = argv[3];
        calls = atol(argv[4]);
        rc = run_calls(atol(argv[5]));
    }
    blob_buf_free(&b);
    ubus_free(ctx);
    uloop_done();
    return rc;
}
