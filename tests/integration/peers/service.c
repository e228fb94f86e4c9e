/* A bus service for the client's tests: publishes "test.service" on the bus whose
 * socket is argv[1], prints "ready" once published, and serves until SIGTERM. */
#include <libubus.h>

#include <stdio.h>
#include <string.h>

#define MAX_HELD 16

static struct blob_buf b;
static struct ubus_request_data held[MAX_HELD];
static int n_held;
static struct ubus_request_data late_req;
static struct ubus_context* late_ctx;
static struct uloop_timeout late_timer;

static int do_none(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                   const char* method, struct blob_attr* msg) {
    (void)ctx, (void)obj, (void)req, (void)method, (void)msg;
    return UBUS_STATUS_OK;
}

/* One reply carrying every field of the call. */
static int do_echo(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                   const char* method, struct blob_attr* msg) {
    struct blob_attr* cur;
    size_t rem;

    (void)obj, (void)method;
    blob_buf_init(&b, 0);
    blob_for_each_attr(cur, msg, rem) blobmsg_add_blob(&b, cur);
    ubus_send_reply(ctx, req, b.head);
    return UBUS_STATUS_OK;
}

/* Three replies {"index": 0..2}. */
static int do_many(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                   const char* method, struct blob_attr* msg) {
    (void)obj, (void)method, (void)msg;
    for (unsigned i = 0; i < 3; i++) {
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "index", i);
        ubus_send_reply(ctx, req, b.head);
    }
    return UBUS_STATUS_OK;
}

static int do_fail(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                   const char* method, struct blob_attr* msg) {
    (void)ctx, (void)obj, (void)req, (void)method, (void)msg;
    return UBUS_STATUS_PERMISSION_DENIED;
}

/* One reply, then a failure. */
static int do_partial(struct ubus_context* ctx, struct ubus_object* obj,
                      struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    (void)obj, (void)method, (void)msg;
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "partial", "yes");
    ubus_send_reply(ctx, req, b.head);
    return UBUS_STATUS_NOT_SUPPORTED;
}

/* A reply whose INT32 field has two bytes, then a good one. */
static int do_garbled(struct ubus_context* ctx, struct ubus_object* obj,
                      struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    static const unsigned char two[2] = {0, 1};

    (void)obj, (void)method, (void)msg;
    blob_buf_init(&b, 0);
    blobmsg_add_field(&b, BLOBMSG_TYPE_INT32, "broken", two, sizeof(two));
    ubus_send_reply(ctx, req, b.head);
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "fine", "yes");
    ubus_send_reply(ctx, req, b.head);
    return UBUS_STATUS_OK;
}

/* Never answered. */
static int do_silent(struct ubus_context* ctx, struct ubus_object* obj,
                     struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    (void)obj, (void)method, (void)msg;
    if (n_held < MAX_HELD)
        ubus_defer_request(ctx, req, &held[n_held++]);
    else
        ubus_defer_request(ctx, req, &held[MAX_HELD - 1]);
    return UBUS_STATUS_OK;
}

static void answer_late(struct uloop_timeout* t) {
    (void)t;
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "late", "yes");
    ubus_send_reply(late_ctx, &late_req, b.head);
    ubus_complete_deferred_request(late_ctx, &late_req, UBUS_STATUS_OK);
}

/* Answered from a timer, 100 ms later. */
static int do_later(struct ubus_context* ctx, struct ubus_object* obj,
                    struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    (void)obj, (void)method, (void)msg;
    late_ctx = ctx;
    ubus_defer_request(ctx, req, &late_req);
    late_timer.cb = answer_late;
    uloop_timeout_set(&late_timer, 100);
    return UBUS_STATUS_OK;
}

static const struct ubus_method methods[] = {
    UBUS_METHOD_NOARG("none", do_none),       UBUS_METHOD_NOARG("echo", do_echo),
    UBUS_METHOD_NOARG("many", do_many),       UBUS_METHOD_NOARG("fail", do_fail),
    UBUS_METHOD_NOARG("partial", do_partial), UBUS_METHOD_NOARG("garbled", do_garbled),
    UBUS_METHOD_NOARG("silent", do_silent),   UBUS_METHOD_NOARG("later", do_later),
};

static struct ubus_object_type type = UBUS_OBJECT_TYPE("test.service", methods);

static struct ubus_object object = {
    .name = "test.service",
    .type = &type,
    .methods = methods,
    .n_methods = ARRAY_SIZE(methods),
};

int main(int argc, char** argv) {
    struct ubus_context* ctx;

    if (argc != 2)
        return 2;
    uloop_init();
    ctx = ubus_connect(argv[1]);
    if (!ctx)
        return 1;
    ubus_add_uloop(ctx);
    if (ubus_add_object(ctx, &object) != UBUS_STATUS_OK)
        return 1;
    printf("ready\n");
    fflush(stdout);
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    blob_buf_free(&b);
    return 0;
}
