/* Test peer publishing objects whose methods exercise the ways an owner can answer.
 * Usage: service SOCKET PATH [COUNT]. With COUNT it publishes PATH.0000 .. PATH.<COUNT-1>,
 * all of one type. Prints "ready" once published; SIGTERM ends it. */
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

static int int_arg(struct blob_attr* msg, int which, int fallback) {
    struct blob_attr* tb[__ARG_MAX];

    blobmsg_parse(arg_policy, __ARG_MAX, tb, blob_data(msg), (unsigned int)blob_len(msg));
    return tb[which] ? (int)blobmsg_get_u32(tb[which]) : fallback;
}

static int echo(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                const char* method, struct blob_attr* msg) {
    (void)obj;
    (void)method;
    ubus_send_reply(ctx, req, msg);
    return UBUS_STATUS_OK;
}

static int nothing(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                   const char* method, struct blob_attr* msg) {
    (void)ctx;
    (void)obj;
    (void)req;
    (void)method;
    (void)msg;
    return UBUS_STATUS_OK;
}

static int many(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                const char* method, struct blob_attr* msg) {
    int n = int_arg(msg, ARG_N, 3);

    (void)obj;
    (void)method;
    for (int i = 0; i < n; i++) {
        blob_buf_init(&reply, 0);
        blobmsg_add_u32(&reply, "i", (uint32_t)i);
        ubus_send_reply(ctx, req, reply.head);
    }
    return UBUS_STATUS_OK;
}

static int fail(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                const char* method, struct blob_attr* msg) {
    (void)obj;
    (void)method;
    blob_buf_init(&reply, 0);
    blobmsg_add_string(&reply, "before", "failing");
    ubus_send_reply(ctx, req, reply.head);
    return int_arg(msg, ARG_STATUS, UBUS_STATUS_UNKNOWN_ERROR);
}

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

static int defer(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                 const char* method, struct blob_attr* msg) {
    struct deferred* d = calloc(1, sizeof(*d));

    (void)obj;
    (void)method;
    CHECK(d);
    d->ctx = ctx;
    d->timeout.cb = deferred_done;
    ubus_defer_request(ctx, req, &d->req);
    uloop_timeout_set(&d->timeout, int_arg(msg, ARG_MS, 100));
    return UBUS_STATUS_OK;
}

/* Takes the call and never answers. */
static int silent(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    struct ubus_request_data forgotten;

    (void)obj;
    (void)method;
    (void)msg;
    ubus_defer_request(ctx, req, &forgotten);
    return UBUS_STATUS_OK;
}

/* The owner vanishes in the middle of the call. */
static int vanish(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    (void)ctx;
    (void)obj;
    (void)req;
    (void)method;
    (void)msg;
    _exit(0);
}

static int big(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
               const char* method, struct blob_attr* msg) {
    int size = int_arg(msg, ARG_SIZE, 1000);
    char* s = malloc((size_t)size + 1);

    (void)obj;
    (void)method;
    CHECK(s);
    memset(s, 'b', (size_t)size);
    s[size] = '\0';
    blob_buf_init(&reply, 0);
    blobmsg_add_string(&reply, "s", s);
    free(s);
    return ubus_send_reply(ctx, req, reply.head) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_OK;
}

static int whoami(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    (void)method;
    (void)msg;
    blob_buf_init(&reply, 0);
    blobmsg_add_string(&reply, "user", req->acl.user ? req->acl.user : "");
    blobmsg_add_string(&reply, "group", req->acl.group ? req->acl.group : "");
    blobmsg_add_string(&reply, "object", obj->name);
    blobmsg_add_u32(&reply, "peer", req->peer);
    ubus_send_reply(ctx, req, reply.head);
    return UBUS_STATUS_OK;
}

static const struct blobmsg_policy echo_policy[] = {
    {.name = "a", .type = BLOBMSG_TYPE_INT32},
    {.name = "b", .type = BLOBMSG_TYPE_STRING},
};

static const struct ubus_method methods[] = {
    UBUS_METHOD("echo", echo, echo_policy),  UBUS_METHOD_NOARG("nothing", nothing),
    UBUS_METHOD("many", many, arg_policy),   UBUS_METHOD("fail", fail, arg_policy),
    UBUS_METHOD("defer", defer, arg_policy), UBUS_METHOD_NOARG("silent", silent),
    UBUS_METHOD_NOARG("vanish", vanish),     UBUS_METHOD("big", big, arg_policy),
    UBUS_METHOD_NOARG("whoami", whoami),
};

static struct ubus_object_type service_type = UBUS_OBJECT_TYPE("service", methods);

static void publish(struct ubus_context* ctx, struct ubus_object* obj, const char* name) {
    obj->name = name;
    obj->type = &service_type;
    obj->methods = methods;
    obj->n_methods = ARRAY_SIZE(methods);
    CHECK_EQ(ubus_add_object(ctx, obj), UBUS_STATUS_OK);
}

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
    if (!count) {
        publish(ctx, &objects[0], argv[2]);
    } else {
        for (int i = 0; i < count; i++) {
            char* name;

            CHECK(asprintf(&name, "%s.%04d", argv[2], i) > 0);
            publish(ctx, &objects[i], name);
        }
    }
    ubus_add_uloop(ctx);
    printf("ready\n");
    fflush(stdout);
    uloop_run();
    ubus_free(ctx);
    return 0;
}
