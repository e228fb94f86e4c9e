/*
 * A small ubus program in the style of those written for OpenWrt's libubus: it publishes
 * an object built with UBUS_METHOD/UBUS_OBJECT_TYPE, answers one method through a
 * deferred request, then looks the object up and calls it asynchronously with data and
 * completion callbacks. Only stock libubus/libubox API is used.
 *
 * Usage: upstream_style [-s <socket>]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

static struct ubus_context* ctx;
static struct blob_buf b;
static int failures;

enum { HELLO_ID, HELLO_MSG, __HELLO_MAX };

static const struct blobmsg_policy hello_policy[] = {
    [HELLO_ID] = {.name = "id", .type = BLOBMSG_TYPE_INT32},
    [HELLO_MSG] = {.name = "msg", .type = BLOBMSG_TYPE_STRING},
};

struct hello_request {
    struct ubus_request_data req;
    struct uloop_timeout timeout;
    int id;
    char data[];
};

static void test_hello_reply(struct uloop_timeout* t) {
    struct hello_request* hreq = container_of(t, struct hello_request, timeout);

    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "message", hreq->data);
    blobmsg_add_u32(&b, "id", hreq->id);
    ubus_send_reply(ctx, &hreq->req, b.head);
    ubus_complete_deferred_request(ctx, &hreq->req, UBUS_STATUS_OK);
    free(hreq);
}

static int test_hello(struct ubus_context* ctx, struct ubus_object* obj,
                      struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    struct hello_request* hreq;
    struct blob_attr* tb[__HELLO_MAX];
    const char format[] = "%s received a message: %s";
    const char* msgstr = "(unknown)";

    blobmsg_parse(hello_policy, ARRAY_SIZE(hello_policy), tb, blob_data(msg), blob_len(msg));

    if (tb[HELLO_MSG])
        msgstr = blobmsg_data(tb[HELLO_MSG]);

    hreq = calloc(1, sizeof(*hreq) + strlen(format) + strlen(obj->name) + strlen(msgstr) + 1);
    if (!hreq)
        return UBUS_STATUS_UNKNOWN_ERROR;

    sprintf(hreq->data, format, obj->name, msgstr);
    hreq->id = tb[HELLO_ID] ? (int)blobmsg_get_u32(tb[HELLO_ID]) : -1;
    ubus_defer_request(ctx, req, &hreq->req);
    hreq->timeout.cb = test_hello_reply;
    uloop_timeout_set(&hreq->timeout, 100);

    return 0;
}

enum { COUNT_TO, __COUNT_MAX };

static const struct blobmsg_policy count_policy[__COUNT_MAX] = {
    [COUNT_TO] = {.name = "to", .type = BLOBMSG_TYPE_INT32},
};

static int test_count(struct ubus_context* ctx, struct ubus_object* obj,
                      struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    struct blob_attr* tb[__COUNT_MAX];
    uint32_t num;
    void* a;

    blobmsg_parse(count_policy, __COUNT_MAX, tb, blob_data(msg), blob_len(msg));
    if (!tb[COUNT_TO])
        return UBUS_STATUS_INVALID_ARGUMENT;

    num = blobmsg_get_u32(tb[COUNT_TO]);
    blob_buf_init(&b, 0);
    a = blobmsg_open_array(&b, "numbers");
    for (uint32_t i = 1; i <= num; i++)
        blobmsg_add_u32(&b, NULL, i);
    blobmsg_close_array(&b, a);
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

static const struct ubus_method test_methods[] = {
    UBUS_METHOD("hello", test_hello, hello_policy),
    UBUS_METHOD("count", test_count, count_policy),
};

static struct ubus_object_type test_object_type = UBUS_OBJECT_TYPE("test", test_methods);

static struct ubus_object test_object = {
    .name = "test",
    .type = &test_object_type,
    .methods = test_methods,
    .n_methods = ARRAY_SIZE(test_methods),
};

static struct ubus_request hello_req, count_req;
static int outstanding;
static char hello_message[128];
static int count_sum;

static void hello_data_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    static const struct blobmsg_policy policy[] = {
        {.name = "message", .type = BLOBMSG_TYPE_STRING},
        {.name = "id", .type = BLOBMSG_TYPE_INT32},
    };
    struct blob_attr* tb[2];

    blobmsg_parse(policy, 2, tb, blob_data(msg), blob_len(msg));
    if (!tb[0] || !tb[1] || blobmsg_get_u32(tb[1]) != 42) {
        fprintf(stderr, "unexpected hello reply\n");
        failures++;
        return;
    }
    snprintf(hello_message, sizeof(hello_message), "%s", blobmsg_get_string(tb[0]));
}

static void count_data_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct blob_attr *tb[1], *cur;
    static const struct blobmsg_policy policy = {.name = "numbers", .type = BLOBMSG_TYPE_ARRAY};
    size_t rem;

    blobmsg_parse(&policy, 1, tb, blob_data(msg), blob_len(msg));
    if (!tb[0]) {
        failures++;
        return;
    }
    blobmsg_for_each_attr(cur, tb[0], rem) count_sum += blobmsg_get_u32(cur);
}

static void complete_cb(struct ubus_request* req, int ret) {
    if (ret != UBUS_STATUS_OK) {
        fprintf(stderr, "request failed: %s\n", ubus_strerror(ret));
        failures++;
    }
    if (--outstanding == 0)
        uloop_end();
}

static void call_test_object(struct uloop_timeout* t) {
    uint32_t id;

    if (ubus_lookup_id(ctx, "test", &id)) {
        fprintf(stderr, "Failed to look up test object\n");
        failures++;
        uloop_end();
        return;
    }

    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "id", 42);
    blobmsg_add_string(&b, "msg", "hello from the client");
    ubus_invoke_async(ctx, id, "hello", b.head, &hello_req);
    hello_req.data_cb = hello_data_cb;
    hello_req.complete_cb = complete_cb;
    ubus_complete_request_async(ctx, &hello_req);
    outstanding++;

    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "to", 10);
    ubus_invoke_async(ctx, id, "count", b.head, &count_req);
    count_req.data_cb = count_data_cb;
    count_req.complete_cb = complete_cb;
    ubus_complete_request_async(ctx, &count_req);
    outstanding++;
}

static void give_up(struct uloop_timeout* t) {
    fprintf(stderr, "Timed out\n");
    failures++;
    uloop_end();
}

int main(int argc, char** argv) {
    struct uloop_timeout start = {.cb = call_test_object};
    struct uloop_timeout guard = {.cb = give_up};
    const char* ubus_socket = NULL;
    int ch;

    while ((ch = getopt(argc, argv, "s:")) != -1) {
        switch (ch) {
        case 's':
            ubus_socket = optarg;
            break;
        default:
            break;
        }
    }

    uloop_init();

    ctx = ubus_connect(ubus_socket);
    if (!ctx) {
        fprintf(stderr, "Failed to connect to ubus\n");
        return -1;
    }

    ubus_add_uloop(ctx);

    if (ubus_add_object(ctx, &test_object)) {
        fprintf(stderr, "Failed to add object\n");
        return -1;
    }

    uloop_timeout_set(&start, 0);
    uloop_timeout_set(&guard, 10000);
    uloop_run();

    ubus_free(ctx);
    uloop_done();

    if (strcmp(hello_message, "test received a message: hello from the client")) {
        fprintf(stderr, "wrong message: '%s'\n", hello_message);
        failures++;
    }
    if (count_sum != 55) {
        fprintf(stderr, "wrong count: %d\n", count_sum);
        failures++;
    }
    printf("%s\n", failures ? "FAIL" : "OK");
    return failures ? 1 : 0;
}
