/* A bus service for the benchmarks: publishes OBJECT on the bus whose socket is argv[1],
 * prints "ready" once published, and serves until SIGTERM.
 *   echo    one reply carrying every field of the call
 *   silent  never answered; the request is held for the rest of the run */
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>

static struct blob_buf b;

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

static int do_silent(struct ubus_context* ctx, struct ubus_object* obj,
                     struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    /* Deliberately never freed: the request stays pending until the service exits. */
    struct ubus_request_data* held = calloc(1, sizeof(*held));

    (void)obj, (void)method, (void)msg;
    if (held)
        ubus_defer_request(ctx, req, held);
    return UBUS_STATUS_OK;
}

static const struct ubus_method methods[] = {
    UBUS_METHOD_NOARG("echo", do_echo),
    UBUS_METHOD_NOARG("silent", do_silent),
};

static struct ubus_object_type type = UBUS_OBJECT_TYPE("bench.service", methods);

int main(int argc, char** argv) {
    struct ubus_object object = {
        .type = &type,
        .methods = methods,
        .n_methods = ARRAY_SIZE(methods),
    };
    struct ubus_context* ctx;

    if (argc != 3)
        return 2;
    object.name = argv[2];
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
