/* The bus service of the tests and benchmarks: publishes PATH (default "test.service") on
 * the bus whose socket is SOCKET, prints "ready" once published, and serves until SIGTERM.
 *   service SOCKET [PATH]
 * Methods, with their optional arguments:
 *   none      no reply
 *   echo      one reply carrying every field of the call
 *   many      three replies {"index": 0..2}
 *   fail      PERMISSION_DENIED, no reply
 *   partial   {"partial": "yes"}, then NOT_SUPPORTED
 *   garbled   a reply whose INT32 field has two bytes, then {"fine": "yes"}
 *   silent    never answered
 *   later{ms} {"late": "yes"} from a timer, after 100 ms by default
 *   big{size} {"s": size bytes of text} */
#include <libubus.h>

#include <orvix_testing/peer.h>

#include <string.h>

enum { ARG_MS, ARG_SIZE, ARG_MAX };

static const struct blobmsg_policy arg_policy[ARG_MAX] = {
    [ARG_MS] = {.name = "ms", .type = BLOBMSG_TYPE_INT32},
    [ARG_SIZE] = {.name = "size", .type = BLOBMSG_TYPE_INT32},
};

static struct blob_buf b;

struct deferred {
    struct uloop_timeout timer;
    struct ubus_request_data req;
    struct ubus_context* ctx;
};

static void answer_late(struct uloop_timeout* t) {
    struct deferred* d = container_of(t, struct deferred, timer);

    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "late", "yes");
    ubus_send_reply(d->ctx, &d->req, b.head);
    ubus_complete_deferred_request(d->ctx, &d->req, UBUS_STATUS_OK);
    free(d);
}

static int handle(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    static const unsigned char two[2] = {0, 1};
    static struct ubus_request_data forgotten;
    struct blob_attr* tb[ARG_MAX];
    struct blob_attr* cur;
    size_t rem;

    (void)obj;
    blobmsg_parse(arg_policy, ARG_MAX, tb, blob_data(msg), (unsigned int)blob_len(msg));
#define ARG(which, fallback) (tb[which] ? blobmsg_get_u32(tb[which]) : (fallback))
    blob_buf_init(&b, 0);
    if (!strcmp(method, "echo")) {
        blob_for_each_attr(cur, msg, rem) blobmsg_add_blob(&b, cur);
        ubus_send_reply(ctx, req, b.head);
    } else if (!strcmp(method, "many")) {
        for (uint32_t i = 0; i < 3; i++) {
            blob_buf_init(&b, 0);
            blobmsg_add_u32(&b, "index", i);
            ubus_send_reply(ctx, req, b.head);
        }
    } else if (!strcmp(method, "fail")) {
        return UBUS_STATUS_PERMISSION_DENIED;
    } else if (!strcmp(method, "partial")) {
        blobmsg_add_string(&b, "partial", "yes");
        ubus_send_reply(ctx, req, b.head);
        return UBUS_STATUS_NOT_SUPPORTED;
    } else if (!strcmp(method, "garbled")) {
        blobmsg_add_field(&b, BLOBMSG_TYPE_INT32, "broken", two, sizeof(two));
        ubus_send_reply(ctx, req, b.head);
        blob_buf_init(&b, 0);
        blobmsg_add_string(&b, "fine", "yes");
        ubus_send_reply(ctx, req, b.head);
    } else if (!strcmp(method, "silent")) {
        ubus_defer_request(ctx, req, &forgotten);
    } else if (!strcmp(method, "later")) {
        struct deferred* d = calloc(1, sizeof(*d));

        CHECK(d);
        d->ctx = ctx;
        d->timer.cb = answer_late;
        ubus_defer_request(ctx, req, &d->req);
        uloop_timeout_set(&d->timer, (int)ARG(ARG_MS, 100));
    } else if (!strcmp(method, "big")) {
        const size_t size = ARG(ARG_SIZE, 1000);
        char* s = malloc(size + 1);

        CHECK(s);
        memset(s, 'b', size);
        s[size] = '\0';
        blobmsg_add_string(&b, "s", s);
        free(s);
        return ubus_send_reply(ctx, req, b.head) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_OK;
    }
#undef ARG
    return UBUS_STATUS_OK;
}

static const struct ubus_method methods[] = {
    UBUS_METHOD_NOARG("none", handle),      UBUS_METHOD_NOARG("echo", handle),
    UBUS_METHOD_NOARG("many", handle),      UBUS_METHOD_NOARG("fail", handle),
    UBUS_METHOD_NOARG("partial", handle),   UBUS_METHOD_NOARG("garbled", handle),
    UBUS_METHOD_NOARG("silent", handle),    UBUS_METHOD("later", handle, arg_policy),
    UBUS_METHOD("big", handle, arg_policy),
};

static struct ubus_object_type type = UBUS_OBJECT_TYPE("test.service", methods);

int main(int argc, char** argv) {
    struct ubus_object object = {
        .name = argc > 2 ? argv[2] : "test.service",
        .type = &type,
        .methods = methods,
        .n_methods = ARRAY_SIZE(methods),
    };
    struct ubus_context* ctx;

    if (argc < 2 || argc > 3)
        return 2;
    uloop_init();
    ctx = ubus_connect(argv[1]);
    CHECK(ctx);
    ubus_add_uloop(ctx);
    CHECK_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    peer_ready();
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    blob_buf_free(&b);
    return 0;
}
