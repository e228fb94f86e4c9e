/* Sends or listens for events over the bus, for the client's tests.
 * Usage: events SOCKET send TYPE COUNT      sends COUNT events TYPE with {"n": i}, i from 0,
 *                                           then prints "status N" of the last send or the
 *                                           first failure;
 *        events SOCKET listen PATTERN COUNT listens, prints "ready", then "event TYPE N" for
 *                                           each event until COUNT have come;
 *        events SOCKET notify PATH COUNT    publishes PATH, prints "ready", and once it has
 *                                           a subscriber sends COUNT notifications "tick"
 *                                           {"n": i}, printing "status N" for each;
 *        events SOCKET subscribe PATH COUNT subscribes to PATH, prints "ready", then
 *                                           "notify TYPE N" for each notification, which it
 *                                           answers with status 5, until COUNT have come;
 *        events SOCKET hold PATH COUNT      subscribes like subscribe, but answers no
 *                                           notification and runs until the bus goes. */
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int remaining;

static void on_event(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                     struct blob_attr* msg) {
    struct blob_attr* cur;
    size_t rem;

    (void)ctx;
    printf("%s %s", ev ? "event" : "notify", type);
    blob_for_each_attr(cur, msg, rem) {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_INT32)
            printf(" %u", blobmsg_get_u32(cur));
    }
    printf("\n");
    fflush(stdout);
    if (--remaining == 0)
        uloop_end();
}

static int count;
static struct blob_buf b;

static void on_subscribers(struct ubus_context* ctx, struct ubus_object* obj) {
    int i;

    if (!obj->has_subscribers)
        return;
    for (i = 0; i < count; i++) {
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "n", (uint32_t)i);
        printf("status %d\n", ubus_notify(ctx, obj, "tick", b.head, 5000));
    }
    fflush(stdout);
    uloop_end();
}

static int on_notify(struct ubus_context* ctx, struct ubus_object* obj,
                     struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    (void)req;
    on_event(ctx, NULL, method, msg);
    (void)obj;
    return UBUS_STATUS_NO_DATA;
}

/* Deferred and never completed: the notifier keeps waiting for this subscriber. */
static int on_notify_held(struct ubus_context* ctx, struct ubus_object* obj,
                          struct ubus_request_data* req, const char* method,
                          struct blob_attr* msg) {
    static struct ubus_request_data held;

    ubus_defer_request(ctx, req, &held);
    on_event(ctx, NULL, method, msg);
    (void)obj;
    return UBUS_STATUS_OK;
}

int main(int argc, char** argv) {
    struct ubus_event_handler listener = {0};
    struct ubus_context* ctx;
    int status = UBUS_STATUS_OK;
    int i;

    if (argc != 5)
        return 2;
    count = atoi(argv[4]);
    ctx = ubus_connect(argv[1]);
    if (!ctx)
        return 1;
    if (!strcmp(argv[2], "send")) {
        for (i = 0; i < count && status == UBUS_STATUS_OK; i++) {
            blob_buf_init(&b, 0);
            blobmsg_add_u32(&b, "n", (uint32_t)i);
            status = ubus_send_event(ctx, argv[3], b.head);
        }
        printf("status %d\n", status);
    } else if (!strcmp(argv[2], "listen")) {
        remaining = count;
        listener.cb = on_event;
        status = ubus_register_event_handler(ctx, &listener, argv[3]);
        if (status != UBUS_STATUS_OK) {
            printf("status %d\n", status);
        } else {
            printf("ready\n");
            fflush(stdout);
            ubus_add_uloop(ctx);
            uloop_run();
        }
    } else if (!strcmp(argv[2], "notify")) {
        static struct ubus_object_type type = {.name = "notifier"};
        static struct ubus_object object = {.type = &type, .subscribe_cb = on_subscribers};

        object.name = argv[3];
        status = ubus_add_object(ctx, &object);
        printf(status == UBUS_STATUS_OK ? "ready\n" : "status %d\n", status);
        fflush(stdout);
        ubus_add_uloop(ctx);
        if (status == UBUS_STATUS_OK)
            uloop_run();
    } else if (!strcmp(argv[2], "subscribe") || !strcmp(argv[2], "hold")) {
        static struct ubus_subscriber subscriber = {.cb = on_notify};
        uint32_t id = 0;

        if (!strcmp(argv[2], "hold"))
            subscriber.cb = on_notify_held;
        remaining = count;
        status = ubus_register_subscriber(ctx, &subscriber);
        if (status == UBUS_STATUS_OK)
            status = ubus_lookup_id(ctx, argv[3], &id);
        if (status == UBUS_STATUS_OK)
            status = ubus_subscribe(ctx, &subscriber, id);
        printf(status == UBUS_STATUS_OK ? "ready\n" : "status %d\n", status);
        fflush(stdout);
        ubus_add_uloop(ctx);
        if (status == UBUS_STATUS_OK)
            uloop_run();
    } else {
        return 2;
    }
    blob_buf_free(&b);
    ubus_free(ctx);
    return 0;
}
