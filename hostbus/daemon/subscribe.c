/* Subscriptions: which objects watch which, notifications forwarded from an object's owner
 * to its subscribers, and the daemon's own notices when a subscription ends or the first
 * one begins. Every list is newest first; the same pair may be subscribed more than once. */
#include <string.h>

#include "ubusd.h"

struct subscription {
    struct list_head target_entry;     /* in target->subscribers */
    struct list_head subscriber_entry; /* in subscriber->targets */
    struct object* subscriber;
    struct object* target;
};

/* TARGET's length is never checked: four bytes are taken from where its payload starts,
 * as far as the message reaches. */
static uint32_t target_id(const struct inmsg* msg, struct blob_attr* target) {
    const uint8_t* start = blob_data(target);
    const uint8_t* end = (const uint8_t*)msg->body + msg->body_len;
    uint32_t be = 0;

    memcpy(&be, start, end - start < 4 ? (size_t)(end - start) : 4);
    return be32_to_cpu(be);
}

/* Tells the owner whether its object is watched now; numbered per object, peer 0. */
static void send_active(struct object* obj, bool active) {
    msg_start();
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id);
    blob_put_int8(&msg_buf, UBUS_ATTR_ACTIVE, active);
    client_send(obj->owner, UBUS_MSG_NOTIFY, (uint16_t)++obj->seq, 0, msg_buf.head, -1);
}

static void subscription_free(struct subscription* s) {
    list_del(&s->target_entry);
    list_del(&s->subscriber_entry);
    free(s);
}

/* The subscribing object, checked as both requests check it. Returns a status. */
static int find_subscriber(struct client* cl, struct blob_attr** tb, struct object** out) {
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_TARGET])
        return UBUS_STATUS_INVALID_ARGUMENT;
    *out = object_find(blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (!*out)
        return UBUS_STATUS_NOT_FOUND;
    return (*out)->owner == cl ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

static bool same_account(const struct client* a, const struct client* b) {
    return !strcmp(a->user, b->user) || !strcmp(a->group, b->group);
}

static int subscribe(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    struct subscription* s;
    struct object *subscriber, *target;
    int status = find_subscriber(cl, tb, &subscriber);

    if (status != UBUS_STATUS_OK)
        return status;
    target = object_find(target_id(msg, tb[UBUS_ATTR_TARGET]));
    if (!target)
        return UBUS_STATUS_NOT_FOUND;
    if (target->owner == cl)
        return UBUS_STATUS_INVALID_ARGUMENT;
    /* An anonymous object only by clients sharing its owner's user or primary group name. */
    if (target->path ? !acl_allows(cl, ACL_SUBSCRIBE, target->path)
                     : !same_account(cl, target->owner))
        return UBUS_STATUS_NOT_FOUND;
    s = calloc(1, sizeof(*s));
    if (!s)
        return UBUS_STATUS_NO_MEMORY;
    s->subscriber = subscriber;
    s->target = target;
    if (list_empty(&target->subscribers))
        send_active(target, true);
    list_add(&s->target_entry, &target->subscribers);
    list_add(&s->subscriber_entry, &subscriber->targets);
    return UBUS_STATUS_OK;
}

void subscribe_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    msg_send_status(cl, msg, subscribe(cl, msg, tb));
}

static int unsubscribe(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    struct object* subscriber;
    struct subscription* s;
    uint32_t id;
    int status = find_subscriber(cl, tb, &subscriber);

    if (status != UBUS_STATUS_OK)
        return status;
    id = target_id(msg, tb[UBUS_ATTR_TARGET]);
    list_for_each_entry(s, &subscriber->targets, subscriber_entry) {
        struct object* target = s->target;

        if (target->id.id != id)
            continue;
        subscription_free(s);
        if (list_empty(&target->subscribers))
            send_active(target, false);
        return UBUS_STATUS_OK;
    }
    return UBUS_STATUS_NOT_FOUND;
}

void unsubscribe_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    msg_send_status(cl, msg, unsubscribe(cl, msg, tb));
}

static bool notify_put_subscribers(struct object* obj) {
    struct subscription* s;
    void* list = blob_nest_start(&msg_buf, UBUS_ATTR_SUBSCRIBERS);

    if (!list)
        return false;
    list_for_each_entry(s, &obj->subscribers, target_entry) {
        if (!blob_put_int32(&msg_buf, 0, s->subscriber->id.id))
            return false;
    }
    blob_nest_end(&msg_buf, list);
    return true;
}

/* Errors are reported even to a notifier that asked for no reply. */
void notify_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    bool no_reply = tb[UBUS_ATTR_NO_REPLY] && blob_get_u8(tb[UBUS_ATTR_NO_REPLY]);
    struct subscription* s;
    struct object* obj;

    if (!tb[UBUS_ATTR_METHOD] || !tb[UBUS_ATTR_OBJID]) {
        msg_send_status(cl, msg, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    obj = object_find(blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (!obj || obj->owner != cl) {
        msg_send_status(cl, msg, obj ? UBUS_STATUS_PERMISSION_DENIED : UBUS_STATUS_NOT_FOUND);
        return;
    }
    if (!no_reply) {
        msg_start();
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id);
        if (!notify_put_subscribers(obj))
            return;
        blob_put_int32(&msg_buf, UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        msg_send(cl, UBUS_MSG_STATUS, msg);
    }
    /* Each subscriber answers the notifier's client, like a method call does. */
    list_for_each_entry(s, &obj->subscribers, target_entry) {
        msg_start();
        if (no_reply)
            blob_put_int8(&msg_buf, UBUS_ATTR_NO_REPLY, 1);
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, s->subscriber->id.id);
        blob_put_raw(&msg_buf, tb[UBUS_ATTR_METHOD],
                     (unsigned int)blob_raw_len(tb[UBUS_ATTR_METHOD]));
        blob_put_string(&msg_buf, UBUS_ATTR_USER, cl->user);
        blob_put_string(&msg_buf, UBUS_ATTR_GROUP, cl->group);
        if (tb[UBUS_ATTR_DATA])
            blob_put_raw(&msg_buf, tb[UBUS_ATTR_DATA],
                         (unsigned int)blob_raw_len(tb[UBUS_ATTR_DATA]));
        client_send(s->subscriber->owner, UBUS_MSG_INVOKE, msg->seq, cl->id.id, msg_buf.head, -1);
    }
}

void subscriptions_object_removed(struct object* obj) {
    struct subscription* s;
    bool watched = !list_empty(&obj->subscribers);

    while (!list_empty(&obj->targets)) {
        struct object* target;

        s = list_first_entry(&obj->targets, struct subscription, subscriber_entry);
        target = s->target;
        subscription_free(s);
        if (list_empty(&target->subscribers))
            send_active(target, false);
    }
    while (!list_empty(&obj->subscribers)) {
        struct object* subscriber;

        s = list_first_entry(&obj->subscribers, struct subscription, target_entry);
        subscriber = s->subscriber;
        msg_start();
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, subscriber->id.id);
        blob_put_int32(&msg_buf, UBUS_ATTR_TARGET, obj->id.id);
        client_send(subscriber->owner, UBUS_MSG_UNSUBSCRIBE, (uint16_t)++subscriber->seq, 0,
                    msg_buf.head, -1);
        subscription_free(s);
    }
    if (watched)
        send_active(obj, false);
}
