/* A service whose object goes away and comes back under the same path, for the client's
 * tests of remembered object ids. Publishes PATH on the bus whose socket is SOCKET, prints
 * "ready", and serves until SIGTERM or the end of its connection.
 *   restarting SOCKET PATH
 * Publishing anew removes the object and adds it again (a new id), then prints "swapped G",
 * G being the publication's generation, 1 for the first. Methods, with an int32 "tag":
 *   run        prints "ran TAG", replies {"tag": TAG, "generation": G}
 *   hold       prints "ran TAG", never answers
 *   gone       prints "ran TAG", answers NOT_FOUND
 *   gone_swap  prints "ran TAG", answers NOT_FOUND, then publishes anew
 *   swap       answers, then publishes anew
 *   flood      sends events "orvix.test.flood": megabytes in large ones, then enough small
 *              ones to leave a listener that is not reading no room for any larger message;
 *              then answers */
#include <libubus.h>

#include <orvix_testing/peer.h>

#include <string.h>

enum { ARG_TAG, ARG_MAX };

static const struct blobmsg_policy arg_policy[ARG_MAX] = {
    [ARG_TAG] = {.name = "tag", .type = BLOBMSG_TYPE_INT32},
};

static struct blob_buf b;
static struct ubus_object object;
static uint32_t generation = 1;

static void publish_anew(struct ubus_context* ctx) {
    CHECK_EQ(ubus_remove_object(ctx, &object), UBUS_STATUS_OK);
    CHECK_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    printf("swapped %u\n", ++generation);
    fflush(stdout);
}

/* The answer goes out while the object still exists: the daemon passes on no answer of an
 * object that is gone. */
static void answer_then_publish_anew(struct ubus_context* ctx, struct ubus_request_data* req,
                                     int status) {
    struct ubus_request_data deferred;

    ubus_defer_request(ctx, req, &deferred);
    ubus_complete_deferred_request(ctx, &deferred, status);
    publish_anew(ctx);
}

static void flood(struct ubus_context* ctx) {
    static char large[60000];
    int i;

    memset(large, 'f', sizeof(large) - 1);
    for (i = 0; i < 64; i++) {
        blob_buf_init(&b, 0);
        blobmsg_add_string(&b, "s", large);
        CHECK_EQ(ubus_send_event(ctx, "orvix.test.flood", b.head), UBUS_STATUS_OK);
    }
    /* Each smaller than any removal event, and together more than the room a large one
     * can have left. */
    blob_buf_init(&b, 0);
    for (i = 0; i < 4000; i++)
        CHECK_EQ(ubus_send_event(ctx, "orvix.test.flood", b.head), UBUS_STATUS_OK);
}

static int handle(struct ubus_context* ctx, struct ubus_object* obj, struct ubus_request_data* req,
                  const char* method, struct blob_attr* msg) {
    static struct ubus_request_data held;
    struct blob_attr* tb[ARG_MAX];
    uint32_t tag;

    (void)obj;
    if (!strcmp(method, "swap")) {
        answer_then_publish_anew(ctx, req, UBUS_STATUS_OK);
        return UBUS_STATUS_OK;
    }
    if (!strcmp(method, "flood")) {
        flood(ctx);
        return UBUS_STATUS_OK;
    }
    blobmsg_parse(arg_policy, ARG_MAX, tb, blob_data(msg), (unsigned int)blob_len(msg));
    tag = tb[ARG_TAG] ? blobmsg_get_u32(tb[ARG_TAG]) : 0;
    printf("ran %u\n", tag);
    fflush(stdout);
    if (!strcmp(method, "hold")) {
        ubus_defer_request(ctx, req, &held);
    } else if (!strcmp(method, "gone")) {
        return UBUS_STATUS_NOT_FOUND;
    } else if (!strcmp(method, "gone_swap")) {
        answer_then_publish_anew(ctx, req, UBUS_STATUS_NOT_FOUND);
    } else {
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "tag", tag);
        blobmsg_add_u32(&b, "generation", generation);
        return ubus_send_reply(ctx, req, b.head) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_OK;
    }
    return UBUS_STATUS_OK;
}

static const struct ubus_method methods[] = {
    UBUS_METHOD("run", handle, arg_policy),  UBUS_METHOD("hold", handle, arg_policy),
    UBUS_METHOD("gone", handle, arg_policy), UBUS_METHOD("gone_swap", handle, arg_policy),
    UBUS_METHOD_NOARG("swap", handle),       UBUS_METHOD_NOARG("flood", handle),
};

static struct ubus_object_type type = UBUS_OBJECT_TYPE("restarting", methods);

static void connection_lost(struct ubus_context* ctx) {
    (void)ctx;
    uloop_end();
}

int main(int argc, char** argv) {
    struct ubus_context* ctx;

    if (argc != 3)
        return 2;
    object.name = argv[2];
    object.type = &type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    uloop_init();
    ctx = ubus_connect(argv[1]);
    CHECK(ctx);
    ctx->connection_lost = connection_lost;
    ubus_add_uloop(ctx);
    CHECK_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    peer_ready();
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    blob_buf_free(&b);
    return 0;
}
