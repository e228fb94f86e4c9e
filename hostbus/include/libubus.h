/* ubus client library: connection, lookup, invocation and object publishing. */
#ifndef __LIBUBUS_H
#define __LIBUBUS_H

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>
#include <string.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;
struct ubus_notify_request;

struct ubus_msghdr_buf {
    struct ubus_msghdr hdr;
    struct blob_attr* data;
};

typedef void (*ubus_lookup_handler_t)(struct ubus_context* ctx, struct ubus_object_data* obj,
                                      void* priv);
typedef int (*ubus_handler_t)(struct ubus_context* ctx, struct ubus_object* obj,
                              struct ubus_request_data* req, const char* method,
                              struct blob_attr* msg);
typedef void (*ubus_state_handler_t)(struct ubus_context* ctx, struct ubus_object* obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* obj,
                                      uint32_t id);
typedef void (*ubus_event_handler_t)(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                     const char* type, struct blob_attr* msg);
typedef void (*ubus_data_handler_t)(struct ubus_request* req, int type, struct blob_attr* msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request* req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request* req, int ret);
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request* req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request* req, int type,
                                           struct blob_attr* msg);
typedef void (*ubus_connect_handler_t)(struct ubus_context* ctx);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context* ctx, struct ubus_subscriber* sub,
                                          const char* path);

#define UBUS_OBJECT_TYPE(_name, _methods)                                                          \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods) }

#define __UBUS_METHOD_BASE(_name, _handler, _mask, _policy, _tags)                                 \
    .name = _name, .handler = _handler, .mask = _mask, .tags = _tags, .policy = _policy

#define __UBUS_METHOD_NOARG(_name, _handler, _mask, _tags)                                         \
    { __UBUS_METHOD_BASE(_name, _handler, _mask, NULL, _tags), .n_policy = 0 }

#define __UBUS_METHOD(_name, _handler, _mask, _policy, _tags)                                      \
    { __UBUS_METHOD_BASE(_name, _handler, _mask, _policy, _tags), .n_policy = ARRAY_SIZE(_policy) }

#define UBUS_METHOD(_name, _handler, _policy) __UBUS_METHOD(_name, _handler, 0, _policy, 0)
#define UBUS_METHOD_TAG(_name, _handler, _policy, _tags)                                           \
    __UBUS_METHOD(_name, _handler, 0, _policy, _tags)
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask)                                          \
    __UBUS_METHOD(_name, _handler, _mask, _policy, 0)
#define UBUS_METHOD_NOARG(_name, _handler) __UBUS_METHOD_NOARG(_name, _handler, 0, 0)
#define UBUS_METHOD_TAG_NOARG(_name, _handler, _tags) __UBUS_METHOD_NOARG(_name, _handler, 0, _tags)

#define UBUS_TAG_STATUS (1ul << 0)
#define UBUS_TAG_ADMIN (1ul << 1)
#define UBUS_TAG_PRIVATE (1ul << 2)

struct ubus_method {
    const char* name;
    ubus_handler_t handler;

    unsigned long mask; /* when non-zero, bit i publishes policy entry i */
    unsigned long tags;
    const struct blobmsg_policy* policy;
    int n_policy;
};

struct ubus_object_type {
    const char* name;
    uint32_t id;

    const struct ubus_method* methods;
    int n_methods;
};

struct ubus_object {
    struct avl_node avl;

    const char* name;
    uint32_t id;

    const char* path;
    struct ubus_object_type* type;

    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;

    const struct ubus_method* methods;
    int n_methods;
};

struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;

    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb;
};

struct ubus_event_handler {
    struct ubus_object obj;

    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;

    struct uloop_fd sock;
    struct uloop_timeout pending_timer;

    uint32_t local_id;
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;

    void (*connection_lost)(struct ubus_context* ctx);
    void (*monitor_cb)(struct ubus_context* ctx, uint32_t seq, struct blob_attr* data);

    struct ubus_msghdr_buf msgbuf;
    uint32_t msgbuf_data_len;
    int msgbuf_reduction_counter;

    union {
        struct {
            struct list_head auto_subscribers;
            struct ubus_event_handler auto_subscribe_event_handler;
        };
        struct {
            ubus_handler_t request_handler;
        };
    };
};

/* A connection that is retried every second until it is made, and made again after a loss. */
struct ubus_auto_conn {
    struct ubus_context ctx;
    struct uloop_timeout timer;
    const char* path;
    ubus_connect_handler_t cb; /* after the first connection only */
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char* path;
    struct blob_attr* signature;
};

struct ubus_acl_key {
    const char* user;
    const char* group;
    const char* object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;

    struct ubus_acl_key acl;

    bool deferred; /* set when the reply is sent later */
    int fd;        /* sent with the final status; -1 for none */
    int req_fd;    /* received with the call; -1 for none */
};

struct ubus_request {
    struct list_head list;

    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;
    bool notify;

    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_fd_handler_t fd_cb;
    ubus_complete_handler_t complete_cb;

    int fd;

    struct ubus_context* ctx;
    void* priv;
};

struct ubus_notify_request {
    struct ubus_request req;

    ubus_notify_complete_handler_t status_cb;
    ubus_notify_complete_handler_t complete_cb;
    ubus_notify_data_handler_t data_cb;

    uint32_t pending;
    uint32_t id[UBUS_MAX_NOTIFY_PEERS + 1];
};

struct ubus_context* ubus_connect(const char* path);
int ubus_connect_ctx(struct ubus_context* ctx, const char* path);
int ubus_reconnect(struct ubus_context* ctx, const char* path);
void ubus_auto_connect(struct ubus_auto_conn* conn);

/* For contexts from ubus_connect. */
void ubus_free(struct ubus_context* ctx);

/* For contexts set up with ubus_connect_ctx. */
void ubus_shutdown(struct ubus_context* ctx);

const char* ubus_strerror(int error);

static inline void ubus_add_uloop(struct ubus_context* ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/* For users with a poll loop of their own. */
static inline void ubus_handle_event(struct ubus_context* ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

int ubus_lookup(struct ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv);
int ubus_lookup_id(struct ubus_context* ctx, const char* path, uint32_t* id);

int ubus_add_object(struct ubus_context* ctx, struct ubus_object* obj);
int ubus_remove_object(struct ubus_context* ctx, struct ubus_object* obj);

/* Lets replies to an asynchronous request be delivered from now on. */
void ubus_complete_request_async(struct ubus_context* ctx, struct ubus_request* req);

/* Waits for the request to finish; timeout in milliseconds, 0 for none. */
int ubus_complete_request(struct ubus_context* ctx, struct ubus_request* req, int timeout);

/* Forgets a request without calling any of its callbacks. */
void ubus_abort_request(struct ubus_context* ctx, struct ubus_request* req);

/* Completes every outstanding request with UBUS_STATUS_TIMEOUT. */
void ubus_flush_requests(struct ubus_context* ctx);

int ubus_invoke_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                   struct blob_attr* msg, ubus_data_handler_t cb, void* priv, int timeout, int fd);

static inline int ubus_invoke(struct ubus_context* ctx, uint32_t obj, const char* method,
                              struct blob_attr* msg, ubus_data_handler_t cb, void* priv,
                              int timeout) {
    return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

int ubus_invoke_async_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                         struct blob_attr* msg, struct ubus_request* req, int fd);

static inline int ubus_invoke_async(struct ubus_context* ctx, uint32_t obj, const char* method,
                                    struct blob_attr* msg, struct ubus_request* req) {
    return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

int ubus_send_reply(struct ubus_context* ctx, struct ubus_request_data* req, struct blob_attr* msg);

static inline void ubus_defer_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                      struct ubus_request_data* new_req) {
    (void)ctx;
    memcpy(new_req, req, sizeof(*req));
    req->deferred = true;
}

static inline void ubus_request_set_fd(struct ubus_context* ctx, struct ubus_request_data* req,
                                       const int fd) {
    (void)ctx;
    req->fd = fd;
}

static inline int ubus_request_get_caller_fd(struct ubus_request_data* req) {
    int fd = req->req_fd;
    req->req_fd = -1;

    return fd;
}

void ubus_complete_deferred_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                    int ret);

/* Registers the context with the daemon as a monitor (root only); every message the daemon
 * receives or sends is then reported to ctx->monitor_cb. */
int ubus_monitor_start(struct ubus_context* ctx);
int ubus_monitor_stop(struct ubus_context* ctx);

/* Adds a pattern to the handler, publishing its object first if it has none yet. A pattern
 * ending in '*' matches every event starting with the rest. */
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern);

static inline int ubus_unregister_event_handler(struct ubus_context* ctx,
                                                struct ubus_event_handler* ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

/* `data`'s payload becomes the event's members; pass a blob_buf's head. */
int ubus_send_event(struct ubus_context* ctx, const char* id, struct blob_attr* data);

/* With new_obj_cb set, also subscribes to every object, present or added later, it accepts. */
int ubus_register_subscriber(struct ubus_context* ctx, struct ubus_subscriber* obj);

static inline int ubus_unregister_subscriber(struct ubus_context* ctx,
                                             struct ubus_subscriber* obj) {
    if (!list_empty(&obj->list))
        list_del_init(&obj->list);
    return ubus_remove_object(ctx, &obj->obj);
}

int ubus_subscribe(struct ubus_context* ctx, struct ubus_subscriber* obj, uint32_t id);
int ubus_unsubscribe(struct ubus_context* ctx, struct ubus_subscriber* obj, uint32_t id);

/* timeout < 0: sent without asking for replies; 0: no limit. Subscribers' answers are
 * waited for but not reported. */
int ubus_notify(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                struct blob_attr* msg, int timeout);

/* Replies are delivered once ubus_complete_request_async is called on &req->req. */
int ubus_notify_async(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                      struct blob_attr* msg, struct ubus_notify_request* req);

#ifdef __cplusplus
}
#endif

#endif
