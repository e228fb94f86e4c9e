/* Test peer publishing objects whose methods exercise the ways an owner can answer.
 * Usage: service SOCKET PATH [COUNT]. With COUNT it publishes PATH.<COUNT-1> down to
 * PATH.0000, all of one type. Prints "ready" once published; SIGTERM ends it. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include "check.h"

static struct blob_buf reply;

enum { ARG_N, ARG_MS, ARG_STATUS, ARG_SIZE, __ARG_MAX };

static const struct blobmsg_policy arg_policy[__ARG_MAX] = {
    [ARG_N] = {.name = "n", .type = BLOBMSG_TYPE_INT32},
    [ARG_MS] = {.name = "ms", .type = BLOBMSG_TYPE_INT32},
    [ARG_STATUS] = {.name = "status", .type = BLOBMSG_TYPE_INT32},
    [ARG_SIZE] = {.name = "size", .type = BLOBMSG_TYPE_INT32},
};

struct deferred {
    struct uloop_timeout timeout;
    struct ubus_request_data req;
    struct ubus_context* ctx;
};

static void deferred_done(struct uloop_timeout* t) {
    struct deferred* d = (struct deferred*)t;

    blob_buf_init(&reply, 0);
    blobmsg_add_u8(&reply, "deferred", 1);
    ubus_send_reply(d->ctx, &d->req, reply.head);
    ubus_complete_deferred_request(d->ctx, &d->req, UBUS_STATUS_OK);
    free(d);
}

/* One handler for every method: echo, nothing, many{n}, fail{status}, defer{ms}, silent
 * (takes the call, never answers), vanish (the owner exits mid-call), big{size}, whoami. */
static int handle(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    struct blob_attr* tb[__ARG_MAX];
    struct ubus_request_data forgotten;

    blobmsg_parse(arg_policy, __ARG_MAX, tb, blob_data(msg), (unsigned int)blob_len(msg));
#define ARG(which, fallback) (tb[which] ? (int)blobmsg_get_u32(tb[which]) : (fallback))
    blob_buf_init(&reply, 0);
    if (!strcmp(method, "echo")) {
        ubus_send_reply(ctx, req, msg);
    } else if (!strcmp(method, "many")) {
        for (int i = 0; i < ARG(ARG_N, 3); i++) {
            blob_buf_init(&reply, 0);
            blobmsg_add_u32(&reply, "i", (uint32_t)i);
            ubus_send_reply(ctx, req, reply.head);
        }
    } else if (!strcmp(method, "fail")) {
        blobmsg_add_string(&reply, "before", "failing");
        ubus_send_reply(ctx, req, reply.head);
        return ARG(ARG_STATUS, UBUS_STATUS_UNKNOWN_ERROR);
    } else if (!strcmp(method, "defer")) {
        struct deferred* d = calloc(1, sizeof(*d));

        CHECK(d);
        d->ctx = ctx;
        d->timeout.cb = deferred_done;
        ubus_defer_request(ctx, req, &d->req);
        uloop_timeout_set(&d->timeout, ARG(ARG_MS, 100));
    } else if (!strcmp(method, "silent")) {
        ubus_defer_request(ctx, req, &forgotten);
    } else if (!strcmp(method, "vanish")) {
        _exit(0);
    } else if (!strcmp(method, "big")) {
        size_t size = (size_t)ARG(ARG_SIZE, 1000);
        char* s = malloc(size + 1);

        CHECK(s);
        memset(s, 'b', size);
        s[size] = '\0';
        blobmsg_add_string(&reply, "s", s);
        free(s);
        return ubus_send_reply(ctx, req, reply.head) ? UBUS_STATUS_UNKNOWN_ERROR : 0;
    } else if (!strcmp(method, "whoami")) {
        blobmsg_add_string(&reply, "user", req->acl.user ? req->acl.user : "");
        blobmsg_add_string(&reply, "group", req->acl.group ? req->acl.group : "");
        blobmsg_add_string(&reply, "object", obj->name);
        ubus_send_reply(ctx, req, reply.head);
    }
#undef ARG
    return UBUS_STATUS_OK;
}

static const struct blobmsg_policy echo_policy[] = {
    {.name = "a", .type = BLOBMSG_TYPE_INT32},
    {.name = "b", .type = BLOBMSG_TYPE_STRING},
};

static const struct ubus_method methods[] = {
    UBUS_METHOD("echo", handle, echo_policy), UBUS_METHOD_NOARG("nothing", handle),
    UBUS_METHOD("many", handle, arg_policy),  UBUS_METHOD("fail", handle, arg_policy),
    UBUS_METHOD("defer", handle, arg_policy), UBUS_METHOD_NOARG("silent", handle),
    UBUS_METHOD_NOARG("vanish", handle),      UBUS_METHOD("big", handle, arg_policy),
    UBUS_METHOD_NOARG("whoami", handle),
};

static struct ubus_object_type service_type = UBUS_OBJECT_TYPE("service", methods);

int main(int argc, char** argv) {
    struct ubus_context* ctx;
    struct ubus_object* objects;
    int count;

    if (argc < 3) {
        fprintf(stderr, "usage: %s SOCKET PATH [COUNT]\n", argv[0]);
        return 2;
    }
    count = argc > 3 ? atoi(argv[3]) : 0;
    ctx = ubus_connect(argv[1]);
    CHECK(ctx);
    objects = calloc(count ? (size_t)count : 1, sizeof(*objects));
    CHECK(objects);
    /* Published last first: listings must come sorted all the same. */
    for (int i = count ? count - 1 : 0; i >= 0; i--) {
        char* name = argv[2];

        CHECK(!count || asprintf(&name, "%s.%04d", argv[2], i) > 0);
        objects[i].name = name;
        objects[i].type = &service_type;
        objects[i].methods = methods;
        objects[i].n_methods = ARRAY_SIZE(methods);
        CHECK_EQ(ubus_add_object(ctx, &objects[i]), UBUS_STATUS_OK);
    }
    ubus_add_uloop(ctx);
    printf("ready\n");
    fflush(stdout);
    uloop_run();
    ubus_free(ctx);
    return 0;
}
