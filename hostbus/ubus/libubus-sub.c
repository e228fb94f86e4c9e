/* Subscriptions and notifications: subscriber objects, automatic subscription to new
 * objects, notifying an object's subscribers and collecting their answers, and the daemon's
 * notices about both sides. */
#include "libubus-internal.h"

/* Notifications reach the subscriber as calls of a method named after them. */
static int ubus_subscriber_cb(struct ubus_context* ctx, struct ubus_object* obj,
                              struct ubus_request_data* req, const char* method,
                              struct blob_attr* msg) {
    struct ubus_subscriber* s = container_of(obj, struct ubus_subscriber, obj);

    if (!s->cb)
        return 0;
    return s->cb(ctx, obj, req, method, msg);
}

static const struct ubus_method ubus_subscriber_method = {.name = NULL,
                                                          .handler = ubus_subscriber_cb};

static int ubus_subscription_request(struct ubus_context* ctx, struct ubus_subscriber* s,
                                     uint32_t id, int type) {
    struct ubus_request req;

    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, s->obj.id);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_TARGET, id);
    if (ubus_start_request(ctx, &req, ubus_build_buf.head, type, 0, -1) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return ubus_complete_request(ctx, &req, 0);
}

int ubus_subscribe(struct ubus_context* ctx, struct ubus_subscriber* s, uint32_t id) {
    return ubus_subscription_request(ctx, s, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(struct ubus_context* ctx, struct ubus_subscriber* s, uint32_t id) {
    return ubus_subscription_request(ctx, s, id, UBUS_MSG_UNSUBSCRIBE);
}

static void ubus_auto_subscribe(struct ubus_context* ctx, struct ubus_subscriber* s, uint32_t id,
                                const char* path) {
    if (s->new_obj_cb(ctx, s, path))
        ubus_subscribe(ctx, s, id);
}

enum { UBUS_OBJ_EVENT_ID, UBUS_OBJ_EVENT_PATH, __UBUS_OBJ_EVENT_MAX };

static const struct blobmsg_policy ubus_obj_event_policy[__UBUS_OBJ_EVENT_MAX] = {
    [UBUS_OBJ_EVENT_ID] = {.name = "id", .type = BLOBMSG_TYPE_INT32},
    [UBUS_OBJ_EVENT_PATH] = {.name = "path", .type = BLOBMSG_TYPE_STRING},
};

/* Every object added to the bus is offered to every automatic subscriber. */
static void ubus_object_added_cb(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                 const char* type, struct blob_attr* msg) {
    struct blob_attr* tb[__UBUS_OBJ_EVENT_MAX];
    struct ubus_subscriber* s;

    (void)ev;
    (void)type;
    blobmsg_parse(ubus_obj_event_policy, __UBUS_OBJ_EVENT_MAX, tb, blob_data(msg),
                  (unsigned int)blob_len(msg));
    if (!tb[UBUS_OBJ_EVENT_ID] || !tb[UBUS_OBJ_EVENT_PATH])
        return;
    list_for_each_entry(s, &ctx->auto_subscribers, list)
        ubus_auto_subscribe(ctx, s, blobmsg_get_u32(tb[UBUS_OBJ_EVENT_ID]),
                            blobmsg_get_string(tb[UBUS_OBJ_EVENT_PATH]));
}

static void ubus_auto_lookup_cb(struct ubus_context* ctx, struct ubus_object_data* obj,
                                void* priv) {
    ubus_auto_subscribe(ctx, priv, obj->id, obj->path);
}

/* Statuses are not looked at: an object that cannot be watched (one's own) is skipped. */
static void ubus_auto_subscribe_all(struct ubus_context* ctx, struct ubus_subscriber* s) {
    struct ubus_event_handler* ev = &ctx->auto_subscribe_event_handler;

    if (!ev->obj.id) {
        ev->cb = ubus_object_added_cb;
        ubus_register_event_handler(ctx, ev, "ubus.object.add");
    }
    ubus_lookup(ctx, NULL, ubus_auto_lookup_cb, s);
}

int ubus_register_subscriber(struct ubus_context* ctx, struct ubus_subscriber* s) {
    int ret;

    INIT_LIST_HEAD(&s->list);
    s->obj.methods = &ubus_subscriber_method;
    s->obj.n_methods = 1;
    ret = ubus_add_object(ctx, &s->obj);
    if (ret)
        return ret;
    if (s->new_obj_cb) {
        list_add(&s->list, &ctx->auto_subscribers);
        ubus_auto_subscribe_all(ctx, s);
    }
    return 0;
}

/* After a reconnect the event handler has a new id but no pattern, and every
 * subscription is gone. */
void ubus_resubscribe_auto(struct ubus_context* ctx) {
    struct ubus_event_handler* ev = &ctx->auto_subscribe_event_handler;
    struct ubus_subscriber* s;

    if (list_empty(&ctx->auto_subscribers))
        return;
    if (ev->obj.id)
        ubus_register_event_handler(ctx, ev, "ubus.object.add");
    list_for_each_entry(s, &ctx->auto_subscribers, list)
        ubus_lookup(ctx, NULL, ubus_auto_lookup_cb, s);
}

static bool ubus_is_subscriber(const struct ubus_object* obj) {
    return obj->methods == &ubus_subscriber_method;
}

/* The target is gone; the daemon has already dropped the subscription. */
void ubus_process_unsubscribe(struct ubus_context* ctx, struct blob_attr* msg) {
    struct blob_attr* tb[UBUS_ATTR_MAX];
    struct ubus_subscriber* s;
    struct ubus_object* obj;
    uint32_t id;

    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_TARGET])
        return;
    id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj = avl_find_element(&ctx->objects, &id, obj, avl);
    if (!obj || !ubus_is_subscriber(obj))
        return;
    s = container_of(obj, struct ubus_subscriber, obj);
    if (s->remove_cb)
        s->remove_cb(ctx, s, blob_get_u32(tb[UBUS_ATTR_TARGET]));
}

/* Whether one of our objects is watched at all. */
void ubus_process_notify(struct ubus_context* ctx, struct blob_attr* msg) {
    struct blob_attr* tb[UBUS_ATTR_MAX];
    struct ubus_object* obj;
    uint32_t id;

    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_ACTIVE])
        return;
    id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj = avl_find_element(&ctx->objects, &id, obj, avl);
    if (!obj)
        return;
    obj->has_subscribers = blob_get_u8(tb[UBUS_ATTR_ACTIVE]);
    if (obj->subscribe_cb)
        obj->subscribe_cb(ctx, obj);
}

/* The daemon's STATUS (index 0) names the subscribers to wait for, as many as fit; each
 * subscriber's STATUS then clears the lowest index still waiting under its id. */
void ubus_notify_reply(struct ubus_request* req, uint32_t peer, struct blob_attr* msg) {
    struct ubus_notify_request* nreq = container_of(req, struct ubus_notify_request, req);
    struct blob_attr* tb[UBUS_ATTR_MAX];
    struct blob_attr* cur;
    size_t rem;
    int idx = 0;

    while (!(nreq->pending & (1u << idx)) || nreq->id[idx] != peer)
        idx++;
    nreq->pending &= ~(1u << idx);
    ubus_parse_msg(msg, tb);
    if (idx) {
        if (nreq->status_cb)
            nreq->status_cb(nreq, idx,
                            tb[UBUS_ATTR_STATUS] ? (int)blob_get_u32(tb[UBUS_ATTR_STATUS]) : 0);
    } else if (tb[UBUS_ATTR_SUBSCRIBERS]) {
        blob_for_each_attr(cur, tb[UBUS_ATTR_SUBSCRIBERS], rem) {
            if (idx == UBUS_MAX_NOTIFY_PEERS)
                break;
            if (!blob_check_type(blob_data(cur), (unsigned int)blob_len(cur), BLOB_ATTR_INT32))
                continue;
            idx++;
            nreq->id[idx] = blob_get_u32(cur);
            nreq->pending |= 1u << idx;
        }
    }
    if (!nreq->pending)
        ubus_request_finish(req, 0);
}

static void ubus_notify_data_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct ubus_notify_request* nreq = container_of(req, struct ubus_notify_request, req);

    if (nreq->data_cb)
        nreq->data_cb(nreq, type, msg);
}

/* Whatever ended the request, its user hears of it as a plain completion. */
static void ubus_notify_complete_cb(struct ubus_request* req, int ret) {
    struct ubus_notify_request* nreq = container_of(req, struct ubus_notify_request, req);

    (void)ret;
    if (nreq->complete_cb)
        nreq->complete_cb(nreq, 0, 0);
}

static int ubus_notify_start(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                             struct blob_attr* msg, struct ubus_notify_request* req, bool reply) {
    int ret = 0;

    memset(req, 0, sizeof(*req));
    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, obj->id);
    blob_put_string(&ubus_build_buf, UBUS_ATTR_METHOD, type);
    ubus_put_payload(&ubus_build_buf, UBUS_ATTR_DATA, msg);
    if (!reply)
        blob_put_int8(&ubus_build_buf, UBUS_ATTR_NO_REPLY, 1);
    if (ubus_start_request(ctx, &req->req, ubus_build_buf.head, UBUS_MSG_NOTIFY, obj->id, -1) < 0)
        ret = UBUS_STATUS_INVALID_ARGUMENT;
    req->req.notify = true;
    req->req.complete_cb = ubus_notify_complete_cb;
    req->req.data_cb = ubus_notify_data_cb;
    req->pending = 1;
    req->id[0] = obj->id;
    return ret;
}

int ubus_notify_async(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                      struct blob_attr* msg, struct ubus_notify_request* req) {
    return ubus_notify_start(ctx, obj, type, msg, req, true);
}

/* A failed send is waited for all the same; the connection is marked lost by then, which
 * ends the wait. */
int ubus_notify(struct ubus_context* ctx, struct ubus_object* obj, const char* type,
                struct blob_attr* msg, int timeout) {
    struct ubus_notify_request req;

    ubus_notify_start(ctx, obj, type, msg, &req, timeout >= 0);
    if (timeout < 0)
        return 0;
    return ubus_complete_request(ctx, &req.req, timeout);
}
