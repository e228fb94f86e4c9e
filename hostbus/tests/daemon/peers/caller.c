/* Test peer calling the objects of `service` through the daemon.
 * Usage: caller SOCKET SCENARIO. Exits 0 when every check of the scenario holds. */
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>

#include "check.h"

#define CALL_TIMEOUT 5000
/* The bus limit on a message blob; not part of the public headers. */
#define MAX_MESSAGE 1048576

static struct ubus_context* ctx;
static struct blob_buf args;

/* What the data callbacks of one call saw. */
struct replies {
    int count;
    struct blob_attr* last; /* copy of the last DATA attribute */
};

static void collect(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct replies* r = req->priv;

    CHECK_EQ(type, UBUS_MSG_DATA);
    r->count++;
    free(r->last);
    r->last = blob_memdup(msg);
}

static void forget(struct replies* r) {
    free(r->last);
    memset(r, 0, sizeof(*r));
}

/* The named field of the last reply, or NULL. */
static struct blob_attr* field(struct replies* r, const char* name, int type) {
    struct blob_attr* cur;
    size_t rem;

    blob_for_each_attr(cur, r->last, rem) {
        if (!strcmp(blobmsg_name(cur), name) && blobmsg_type(cur) == type)
            return cur;
    }
    return NULL;
}

static uint32_t find(const char* path) {
    uint32_t id = 0;

    CHECK_EQ(ubus_lookup_id(ctx, path, &id), UBUS_STATUS_OK);
    CHECK(id >= UBUS_SYSTEM_OBJECT_MAX);
    return id;
}

/* `r` starts zeroed; each call forgets what the previous one saw. */
static int call(uint32_t id, const char* method, struct replies* r, int timeout) {
    forget(r);
    return ubus_invoke(ctx, id, method, args.head, collect, r, timeout);
}

static double now_ms(void) {
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec * 1000.0 + (double)ts.tv_nsec / 1e6;
}

struct listing {
    int count;
    char last[64];
    bool sorted, has_signature;
};

static void list_cb(struct ubus_context* c, struct ubus_object_data* obj, void* priv) {
    struct listing* l = priv;

    CHECK(c == ctx);
    if (l->count && strcmp(l->last, obj->path) >= 0)
        l->sorted = false;
    snprintf(l->last, sizeof(l->last), "%s", obj->path);
    l->has_signature = l->has_signature || (obj->signature && obj->type_id);
    l->count++;
}

static int list(const char* path, struct listing* l) {
    memset(l, 0, sizeof(*l));
    l->sorted = true;
    return ubus_lookup(ctx, path, list_cb, l);
}

static void scenario_lookup(void) {
    struct listing l;
    uint32_t id = 0;

    find("svc");
    CHECK_EQ(list("svc", &l), UBUS_STATUS_OK);
    CHECK_EQ(l.count, 1);
    CHECK(l.has_signature);
    CHECK_EQ(list("sv*", &l), UBUS_STATUS_OK);
    CHECK_EQ(l.count, 2);
    CHECK(l.sorted);
    CHECK_EQ(list(NULL, &l), UBUS_STATUS_OK);
    CHECK_EQ(l.count, 2);
    CHECK_EQ(ubus_lookup_id(ctx, "missing", &id), UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(id, 0);
    CHECK_EQ(ubus_lookup_id(ctx, "", &id), UBUS_STATUS_INVALID_ARGUMENT);
    CHECK_EQ(list("zz*", &l), UBUS_STATUS_NOT_FOUND);
}

/* Zero, one and several replies, a failure status after data, and the caller's identity. */
static void scenario_invoke(void) {
    uint32_t id = find("svc");
    struct replies r = {0};
    struct passwd* pw = getpwuid(geteuid());
    struct group* gr = getgrgid(getegid());
    char user[32], group[32];

    blob_buf_init(&args, 0);
    blobmsg_add_u32(&args, "a", 1);
    blobmsg_add_string(&args, "b", "x");
    CHECK_EQ(call(id, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 1);
    CHECK_EQ(blob_len(r.last), blob_len(args.head));
    CHECK(!memcmp(blob_data(r.last), blob_data(args.head), blob_len(args.head)));

    blob_buf_init(&args, 0);
    CHECK_EQ(call(id, "nothing", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 0);

    blobmsg_add_u32(&args, "n", 5);
    CHECK_EQ(call(id, "many", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 5);
    CHECK(field(&r, "i", BLOBMSG_TYPE_INT32));
    CHECK_EQ(blobmsg_get_u32(field(&r, "i", BLOBMSG_TYPE_INT32)), 4);

    blob_buf_init(&args, 0);
    blobmsg_add_u32(&args, "status", 42);
    CHECK_EQ(call(id, "fail", &r, CALL_TIMEOUT), 42);
    CHECK_EQ(r.count, 1);

    snprintf(user, sizeof(user), "%u", (unsigned)geteuid());
    snprintf(group, sizeof(group), "%u", (unsigned)getegid());
    blob_buf_init(&args, 0);
    CHECK_EQ(call(id, "whoami", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK(!strcmp(blobmsg_get_string(field(&r, "user", BLOBMSG_TYPE_STRING)),
                  pw ? pw->pw_name : user));
    CHECK(!strcmp(blobmsg_get_string(field(&r, "group", BLOBMSG_TYPE_STRING)),
                  gr ? gr->gr_name : group));
    CHECK(!strcmp(blobmsg_get_string(field(&r, "object", BLOBMSG_TYPE_STRING)), "svc"));
    forget(&r);
}

static int deferred_left;

static void deferred_complete(struct ubus_request* req, int status) {
    struct replies* r = req->priv;

    CHECK_EQ(status, UBUS_STATUS_OK);
    CHECK_EQ(r->count, 1);
    CHECK(field(r, "deferred", BLOBMSG_TYPE_INT8));
    if (--deferred_left == 0)
        uloop_end();
}

static void give_up(struct uloop_timeout* t) {
    (void)t;
    fprintf(stderr, "deferred replies did not all arrive\n");
    exit(1);
}

static void scenario_deferred(void) {
    uint32_t id = find("svc");
    struct ubus_request reqs[3];
    struct replies r[3] = {{0}};
    struct uloop_timeout guard = {.cb = give_up};
    double start = now_ms();

    blob_buf_init(&args, 0);
    blobmsg_add_u32(&args, "ms", 50);
    CHECK_EQ(call(id, "defer", &r[0], CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r[0].count, 1);
    CHECK(now_ms() - start >= 40);

    /* Three at once, answered in the reverse order of asking. */
    ubus_add_uloop(ctx);
    for (int i = 0; i < 3; i++) {
        blob_buf_init(&args, 0);
        blobmsg_add_u32(&args, "ms", (uint32_t)(300 - 100 * i));
        CHECK_EQ(ubus_invoke_async(ctx, id, "defer", args.head, &reqs[i]), UBUS_STATUS_OK);
        forget(&r[i]);
        reqs[i].data_cb = collect;
        reqs[i].complete_cb = deferred_complete;
        reqs[i].priv = &r[i];
        ubus_complete_request_async(ctx, &reqs[i]);
    }
    deferred_left = 3;
    uloop_timeout_set(&guard, 10000);
    uloop_run();
    uloop_timeout_cancel(&guard);
    CHECK_EQ(deferred_left, 0);
    for (int i = 0; i < 3; i++)
        forget(&r[i]);
}

/* Unknown object and method, a system object, and a call that is never answered. */
static void scenario_errors(void) {
    uint32_t id = find("svc");
    struct replies r = {0};
    double start;

    blob_buf_init(&args, 0);
    CHECK_EQ(call(0x7ffffff0, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(call(77, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(call(id, "no_such_method", &r, CALL_TIMEOUT), UBUS_STATUS_METHOD_NOT_FOUND);
    CHECK_EQ(call(UBUS_SYSTEM_OBJECT_ACL, "query", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 1);
    start = now_ms();
    CHECK_EQ(call(id, "silent", &r, 300), UBUS_STATUS_TIMEOUT);
    CHECK(now_ms() - start >= 250);
    CHECK_EQ(call(id, "nothing", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    forget(&r);
}

static void scenario_owner_vanishes(void) {
    uint32_t id = find("svc"), again = 0;
    struct replies r = {0};
    int status = UBUS_STATUS_OK;

    blob_buf_init(&args, 0);
    CHECK_EQ(call(id, "vanish", &r, 1000), UBUS_STATUS_TIMEOUT);
    CHECK_EQ(r.count, 0);
    for (int i = 0; i < 200 && status != UBUS_STATUS_NOT_FOUND; i++) {
        status = ubus_lookup_id(ctx, "svc", &again);
        if (status != UBUS_STATUS_NOT_FOUND)
            usleep(10000);
    }
    CHECK_EQ(status, UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(call(id, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_NOT_FOUND);
}

static void scenario_remove(void) {
    static const struct ubus_method own_methods[] = {UBUS_METHOD_NOARG("m", NULL)};
    static struct ubus_object_type own_type = UBUS_OBJECT_TYPE("own", own_methods);
    struct ubus_object own = {.name = "caller.own", .type = &own_type, .methods = own_methods};
    struct ubus_object foreign = {.id = find("svc")};
    uint32_t id = 0;

    own.n_methods = ARRAY_SIZE(own_methods);
    CHECK_EQ(ubus_add_object(ctx, &own), UBUS_STATUS_OK);
    CHECK(own.id != 0 && own_type.id != 0);
    CHECK_EQ(find("caller.own"), own.id);
    CHECK_EQ(ubus_add_object(ctx, &own), UBUS_STATUS_INVALID_ARGUMENT);
    CHECK_EQ(ubus_remove_object(ctx, &own), UBUS_STATUS_OK);
    CHECK_EQ(own.id, 0);
    CHECK_EQ(own_type.id, 0);
    CHECK_EQ(ubus_remove_object(ctx, &own), UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(ubus_lookup_id(ctx, "caller.own", &id), UBUS_STATUS_NOT_FOUND);
    CHECK_EQ(ubus_remove_object(ctx, &foreign), UBUS_STATUS_PERMISSION_DENIED);
}

static void scenario_near_limit(void) {
    uint32_t id = find("svc");
    /* Room for the header fields the daemon adds when forwarding. */
    size_t size = MAX_MESSAGE - 256;
    char* s = malloc(size + 1);
    struct replies r = {0};

    CHECK(s);
    memset(s, 'a', size);
    s[size - 20] = '\0';
    blob_buf_init(&args, 0);
    blobmsg_add_string(&args, "b", s);
    CHECK_EQ(call(id, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 1);
    CHECK_EQ(blob_len(r.last), blob_len(args.head));

    blob_buf_init(&args, 0);
    blobmsg_add_u32(&args, "size", (uint32_t)(MAX_MESSAGE - 128));
    CHECK_EQ(call(id, "big", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(r.count, 1);
    CHECK(field(&r, "s", BLOBMSG_TYPE_STRING));
    CHECK_EQ(strlen(blobmsg_get_string(field(&r, "s", BLOBMSG_TYPE_STRING))), MAX_MESSAGE - 128);

    /* Too large to send at all: refused by the library, the connection stays usable. */
    s[size - 20] = 'a';
    s[size] = '\0';
    blob_buf_init(&args, 0);
    blobmsg_add_string(&args, "b", s);
    blobmsg_add_string(&args, "c", s);
    CHECK_EQ(call(id, "echo", &r, CALL_TIMEOUT), UBUS_STATUS_INVALID_ARGUMENT);
    blob_buf_init(&args, 0);
    CHECK_EQ(call(id, "nothing", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    forget(&r);
    free(s);
}

static void scenario_thousand(void) {
    struct listing l;
    struct replies r = {0};

    CHECK_EQ(list("bulk.*", &l), UBUS_STATUS_OK);
    CHECK_EQ(l.count, 1000);
    CHECK(l.sorted);
    CHECK(!strcmp(l.last, "bulk.0999"));
    blob_buf_init(&args, 0);
    blobmsg_add_u32(&args, "a", 7);
    CHECK_EQ(call(find("bulk.0000"), "echo", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    CHECK_EQ(call(find("bulk.0999"), "echo", &r, CALL_TIMEOUT), UBUS_STATUS_OK);
    forget(&r);
}

static const struct {
    const char* name;
    void (*run)(void);
} scenarios[] = {
    {"lookup", scenario_lookup},
    {"invoke", scenario_invoke},
    {"deferred", scenario_deferred},
    {"errors", scenario_errors},
    {"owner_vanishes", scenario_owner_vanishes},
    {"remove", scenario_remove},
    {"near_limit", scenario_near_limit},
    {"thousand", scenario_thousand},
};

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s SOCKET SCENARIO\n", argv[0]);
        return 2;
    }
    ctx = ubus_connect(argv[1]);
    CHECK(ctx);
    for (size_t i = 0; i < ARRAY_SIZE(scenarios); i++) {
        if (!strcmp(argv[2], scenarios[i].name)) {
            scenarios[i].run();
            ubus_free(ctx);
            blob_buf_free(&args);
            return 0;
        }
    }
    fprintf(stderr, "unknown scenario %s\n", argv[2]);
    return 2;
}
