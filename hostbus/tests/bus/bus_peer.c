/* A program written for the device's libubus: two connections, one owning "test.svc", the
 * other subscribing to it and listening for events. It prints what each call returned and
 * what each callback saw, one line each, object ids by name. */
#include <stdio.h>
#include <string.h>

#include <libubus.h>

static struct ubus_context *own, *sub;
static struct blob_buf b;

static int svc_ping(struct ubus_context* ctx, struct ubus_object* obj,
                    struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    return 0;
}

static const struct blobmsg_policy ping_policy[] = {{.name = "n", .type = BLOBMSG_TYPE_INT32}};
static struct ubus_method svc_methods[] = {UBUS_METHOD("ping", svc_ping, ping_policy)};
static struct ubus_object_type svc_type = UBUS_OBJECT_TYPE("test.svc", svc_methods);

static void svc_state(struct ubus_context* ctx, struct ubus_object* obj) {
    printf("own: active %d\n", obj->has_subscribers);
}

static struct ubus_object svc = {.name = "test.svc",
                                 .type = &svc_type,
                                 .methods = svc_methods,
                                 .n_methods = ARRAY_SIZE(svc_methods),
                                 .subscribe_cb = svc_state};

static uint32_t svc_id; /* kept past the object's removal */

static const char* name_of(uint32_t id) {
    return id == svc_id ? "svc" : "?";
}

/* Prints `what`, the payload length of `msg` and its members; then ends the line. */
static void print_msg(const char* what, struct blob_attr* msg) {
    struct blob_attr* cur;
    size_t rem;

    printf("%s len %u", what, (unsigned)blob_len(msg));
    blobmsg_for_each_attr(cur, msg, rem) {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_INT32 && strcmp(blobmsg_name(cur), "id"))
            printf(" %s=%d", blobmsg_name(cur), (int)blobmsg_get_u32(cur));
        else if (blobmsg_type(cur) == BLOBMSG_TYPE_INT32)
            printf(" id=%s", name_of(blobmsg_get_u32(cur)));
        else if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING)
            printf(" %s=%s", blobmsg_name(cur), blobmsg_get_string(cur));
    }
    printf("\n");
}

static void ev_cb(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                  struct blob_attr* msg);
static struct ubus_event_handler ev_all = {.cb = ev_cb}, ev_exact = {.cb = ev_cb},
                                 ev_prefix = {.cb = ev_cb}, ev_own = {.cb = ev_cb};

static void ev_cb(struct ubus_context* ctx, struct ubus_event_handler* ev, const char* type,
                  struct blob_attr* msg) {
    printf("%s: event %s",
           ev == &ev_all      ? "sub *"
           : ev == &ev_exact  ? "sub test.ev"
           : ev == &ev_prefix ? "sub test.*"
                              : "own",
           type);
    print_msg("", msg);
}

static int watch_cb(struct ubus_context* ctx, struct ubus_object* obj,
                    struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    printf("sub: notify %s", method);
    print_msg("", msg);
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "reply", method);
    ubus_send_reply(ctx, req, b.head);
    return UBUS_STATUS_NO_DATA;
}

static bool new_obj(struct ubus_context* ctx, struct ubus_subscriber* s, const char* path) {
    printf("sub: new object %s\n", path);
    return !strncmp(path, "test.", 5);
}

static void removed(struct ubus_context* ctx, struct ubus_subscriber* s, uint32_t id) {
    printf("sub: remove_cb %s\n", name_of(id));
}

static struct ubus_subscriber watcher = {
    .cb = watch_cb, .remove_cb = removed, .new_obj_cb = new_obj};

static void lookup_cb(struct ubus_context* ctx, struct ubus_object_data* o, void* priv) {
    struct blob_attr *m, *a;
    size_t rem, rem2;

    printf("lookup: %s %s type %s sig id %u", o->path, name_of(o->id),
           o->type_id == svc_type.id ? "same" : "other", blob_id(o->signature));
    blob_for_each_attr(m, o->signature, rem) {
        printf(" %s(", blobmsg_name(m));
        blobmsg_for_each_attr(a, m, rem2) printf("%s:%u", blobmsg_name(a), blobmsg_get_u32(a));
        printf(")");
    }
    printf("\n");
}

static void n_status(struct ubus_notify_request* req, int idx, int ret) {
    printf("own: status_cb idx %d ret %d\n", idx, ret);
}

static void n_data(struct ubus_notify_request* req, int type, struct blob_attr* msg) {
    printf("own: data_cb type %d", type);
    print_msg("", msg);
}

static void n_complete(struct ubus_notify_request* req, int idx, int ret) {
    printf("own: complete_cb idx %d ret %d code %d\n", idx, ret, req->req.status_code);
}

static struct ubus_notify_request nreq;
static struct uloop_timeout step_timer;
static int step;

static void next_step(struct uloop_timeout* t) {
    uint32_t id = 0;

    switch (step++) {
    case 0:
        printf("add svc %d\n", ubus_add_object(own, &svc));
        svc_id = svc.id;
        printf("register NULL %d\n", ubus_register_event_handler(sub, &ev_all, NULL));
        printf("register \"\" %d\n", ubus_register_event_handler(sub, &ev_all, ""));
        printf("register * %d\n", ubus_register_event_handler(sub, &ev_all, "*"));
        printf("register test.ev %d\n", ubus_register_event_handler(sub, &ev_exact, "test.ev"));
        printf("register test.* %d\n", ubus_register_event_handler(sub, &ev_prefix, "test.*"));
        printf("register own %d\n", ubus_register_event_handler(own, &ev_own, "test.*"));
        break;
    case 1:
        printf("register_subscriber %d\n", ubus_register_subscriber(sub, &watcher));
        break;
    case 2:
        printf("lookup test.* %d\n", ubus_lookup(sub, "test.*", lookup_cb, NULL));
        printf("lookup nope %d\n", ubus_lookup(sub, "nope", lookup_cb, NULL));
        printf("lookup \"\" %d\n", ubus_lookup(sub, "", lookup_cb, NULL));
        printf("lookup_id %d", ubus_lookup_id(sub, "test.svc", &id));
        printf(" %s\n", name_of(id));
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "n", 1);
        printf("send test.ev %d\n", ubus_send_event(own, "test.ev", b.head));
        printf("send ubus.x %d\n", ubus_send_event(own, "ubus.x", b.head));
        break;
    case 3:
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "k", 1);
        printf("notify_async %d\n", ubus_notify_async(own, &svc, "n1", b.head, &nreq));
        nreq.status_cb = n_status;
        nreq.data_cb = n_data;
        nreq.complete_cb = n_complete;
        ubus_complete_request_async(own, &nreq.req);
        break;
    case 4:
        printf("notify no reply %d\n", ubus_notify(own, &svc, "n2", NULL, -1));
        break;
    case 5:
        printf("unsubscribe %d\n", ubus_unsubscribe(sub, &watcher, svc.id));
        printf("unsubscribe again %d\n", ubus_unsubscribe(sub, &watcher, svc.id));
        printf("subscribe unknown %d\n", ubus_subscribe(sub, &watcher, 0x12345678));
        printf("subscribe system %d\n", ubus_subscribe(sub, &watcher, 1));
        break;
    case 6:
        printf("subscribe %d\n", ubus_subscribe(sub, &watcher, svc.id));
        break;
    case 7:
        printf("remove svc %d\n", ubus_remove_object(own, &svc));
        printf("has_subscribers %d\n", svc.has_subscribers);
        break;
    default:
        uloop_end();
        return;
    }
    uloop_timeout_set(t, 100);
}

int main(int argc, char** argv) {
    setvbuf(stdout, NULL, _IOLBF, 0);
    own = ubus_connect(argv[1]);
    sub = ubus_connect(argv[1]);
    if (!own || !sub)
        return 1;
    ubus_add_uloop(own);
    ubus_add_uloop(sub);
    step_timer.cb = next_step;
    uloop_timeout_set(&step_timer, 0);
    uloop_run();
    ubus_free(sub);
    ubus_free(own);
    return 0;
}
