/* Events: objects registered with patterns through the built-in object 1, events sent by
 * clients, and the daemon's own notices (ubus.object.add/remove, ubus.acl.sequence). An
 * event reaches each listening object once, as an INVOKE whose METHOD is the event name.
 * Registering and sending are access-checked; delivery is not. */
#include <string.h>

#include <libubox/blobmsg.h>

#include "ubusd.h"

/* Kept in one list sorted by pattern (byte-wise, the '*' of a prefix stripped), equal ones
 * in registration order: the order in which listeners get an event. */
struct event_pattern {
    struct list_head entry;        /* in `patterns` */
    struct list_head object_entry; /* in object->event_patterns */
    struct object* obj;
    bool prefix;
    char pattern[];
};

static LIST_HEAD(patterns);
static uint16_t event_seq;         /* counts every copy delivered */
static uint32_t event_gen;         /* tells apart the events delivered, for one copy per object */
static struct blob_buf event_data; /* the DATA attribute of the event being delivered */

enum { REGISTER_OBJECT, REGISTER_PATTERN, __REGISTER_MAX };

static const struct blobmsg_policy register_policy[__REGISTER_MAX] = {
    [REGISTER_OBJECT] = {.name = "object", .type = BLOBMSG_TYPE_INT32},
    [REGISTER_PATTERN] = {.name = "pattern", .type = BLOBMSG_TYPE_STRING},
};

enum { SEND_ID, SEND_DATA, __SEND_MAX };

static const struct blobmsg_policy send_policy[__SEND_MAX] = {
    [SEND_ID] = {.name = "id", .type = BLOBMSG_TYPE_STRING},
    [SEND_DATA] = {.name = "data", .type = BLOBMSG_TYPE_TABLE},
};

static bool pattern_matches(const struct event_pattern* p, const char* event) {
    if (p->prefix)
        return !strncmp(event, p->pattern, strlen(p->pattern));
    return !strcmp(event, p->pattern);
}

/* Delivers event_data to every listening object once, except to those of `sender`. */
static void deliver(const char* event, const struct client* sender) {
    struct event_pattern* p;

    event_gen++;
    list_for_each_entry(p, &patterns, entry) {
        struct object* obj = p->obj;

        if (obj->event_gen == event_gen || obj->owner == sender || obj->owner->dead ||
            !pattern_matches(p, event))
            continue;
        obj->event_gen = event_gen;
        msg_start();
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id);
        blob_put_string(&msg_buf, UBUS_ATTR_METHOD, event);
        blob_put_raw(&msg_buf, event_data.head, (unsigned int)blob_raw_len(event_data.head));
        client_send(obj->owner, UBUS_MSG_INVOKE, ++event_seq, 0, msg_buf.head, -1);
    }
}

static void add_pattern(struct event_pattern* p) {
    struct event_pattern* cur;

    list_for_each_entry(cur, &patterns, entry) {
        if (strcmp(cur->pattern, p->pattern) > 0)
            break;
    }
    list_add_tail(&p->entry, &cur->entry);
}

int events_register(struct client* cl, struct blob_attr* data) {
    struct blob_attr* tb[__REGISTER_MAX];
    struct event_pattern* p;
    struct object* obj;
    const char* pattern;
    size_t len;
    uint32_t id;

    if (!data || blobmsg_parse(register_policy, __REGISTER_MAX, tb, blob_data(data),
                               (unsigned int)blob_len(data)) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!tb[REGISTER_OBJECT] || !tb[REGISTER_PATTERN])
        return UBUS_STATUS_INVALID_ARGUMENT;
    pattern = blobmsg_get_string(tb[REGISTER_PATTERN]);
    if (!pattern[0] || !acl_allows(cl, ACL_LISTEN, pattern))
        return UBUS_STATUS_PERMISSION_DENIED;
    id = blobmsg_get_u32(tb[REGISTER_OBJECT]);
    /* The system objects cannot listen. */
    if (id < UBUS_SYSTEM_OBJECT_MAX)
        return UBUS_STATUS_PERMISSION_DENIED;
    obj = object_find(id);
    if (!obj)
        return UBUS_STATUS_NOT_FOUND;
    if (obj->owner != cl)
        return UBUS_STATUS_PERMISSION_DENIED;
    len = strlen(pattern);
    p = calloc(1, sizeof(*p) + len + 1);
    if (!p)
        return UBUS_STATUS_NO_MEMORY;
    p->obj = obj;
    p->prefix = pattern[len - 1] == '*';
    memcpy(p->pattern, pattern, p->prefix ? len - 1 : len);
    add_pattern(p);
    list_add_tail(&p->object_entry, &obj->event_patterns);
    return UBUS_STATUS_OK;
}

int events_send(struct client* cl, struct blob_attr* data) {
    struct blob_attr* tb[__SEND_MAX];
    struct blob_attr* cur;
    const char* event;
    size_t rem;

    if (!data || blobmsg_parse(send_policy, __SEND_MAX, tb, blob_data(data),
                               (unsigned int)blob_len(data)) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!tb[SEND_ID] || !tb[SEND_DATA])
        return UBUS_STATUS_INVALID_ARGUMENT;
    event = blobmsg_get_string(tb[SEND_ID]);
    /* The ubus.* namespace belongs to the daemon. */
    if (!acl_allows(cl, ACL_SEND, event) || !strncmp(event, "ubus.", 5))
        return UBUS_STATUS_PERMISSION_DENIED;
    if (blob_buf_init(&event_data, UBUS_ATTR_DATA) < 0)
        return UBUS_STATUS_NO_MEMORY;
    blobmsg_for_each_attr(cur, tb[SEND_DATA], rem) {
        if (!blob_put_raw(&event_data, cur, (unsigned int)blob_raw_len(cur)))
            return UBUS_STATUS_NO_MEMORY;
    }
    deliver(event, cl);
    return UBUS_STATUS_OK;
}

static void object_notice(struct object* obj, const char* event) {
    if (!obj->path || blob_buf_init(&event_data, UBUS_ATTR_DATA) < 0)
        return;
    blobmsg_add_u32(&event_data, "id", obj->id.id);
    blobmsg_add_string(&event_data, "path", obj->path);
    deliver(event, NULL);
}

void events_object_added(struct object* obj) {
    object_notice(obj, "ubus.object.add");
}

void events_object_removed(struct object* obj) {
    struct event_pattern *p, *tmp;

    list_for_each_entry_safe(p, tmp, &obj->event_patterns, object_entry) {
        list_del(&p->entry);
        free(p);
    }
    object_notice(obj, "ubus.object.remove");
}

void events_acl_sequence(uint32_t seq) {
    if (blob_buf_init(&event_data, UBUS_ATTR_DATA) < 0)
        return;
    blobmsg_add_u32(&event_data, "sequence", seq);
    deliver("ubus.acl.sequence", NULL);
}
