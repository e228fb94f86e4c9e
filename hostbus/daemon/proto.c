/* What the daemon does with each message type a client sends. */
#include <unistd.h>

#include "ubusd.h"

static void handle_ping(struct client* cl, const struct inmsg* msg) {
    client_send(cl, UBUS_MSG_DATA, msg->seq, msg->peer, msg->body, -1);
    msg_send_status(cl, msg, UBUS_STATUS_OK);
}

static void handle_add_object(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    struct object* obj;
    int status = object_create(cl, tb, &obj);

    if (status != UBUS_STATUS_OK) {
        msg_send_status(cl, msg, status);
        return;
    }
    /* Listeners hear of the object before its owner gets the reply. */
    events_object_added(obj);
    msg_start();
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id);
    /* A type is reported only when this request created it from a signature. */
    if (obj->type && !tb[UBUS_ATTR_OBJTYPE])
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJTYPE, obj->type->id.id);
    msg_send(cl, UBUS_MSG_DATA, msg);
    msg_send_status(cl, msg, UBUS_STATUS_OK);
}

static void handle_remove_object(struct client* cl, const struct inmsg* msg,
                                 struct blob_attr** tb) {
    struct object* obj;
    uint32_t id;

    if (!tb[UBUS_ATTR_OBJID]) {
        msg_send_status(cl, msg, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj = object_find(id);
    if (!obj) {
        msg_send_status(cl, msg, UBUS_STATUS_NOT_FOUND);
        return;
    }
    if (obj->owner != cl) {
        msg_send_status(cl, msg, UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    /* The remover hears of the removal first; subscribers and listeners are told before
     * its STATUS. */
    msg_start();
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, id);
    /* The owner forgets a type id once nothing uses it any more. */
    if (obj->type && obj->type->refs == 1)
        blob_put_int32(&msg_buf, UBUS_ATTR_OBJTYPE, obj->type->id.id);
    msg_send(cl, UBUS_MSG_DATA, msg);
    object_destroy(obj);
    msg_send_status(cl, msg, UBUS_STATUS_OK);
}

/* The owner learns who calls (client id as peer, account names) and answers that client. */
static int forward_invoke(struct client* cl, struct inmsg* msg, struct blob_attr** tb,
                          struct object* obj) {
    msg_start();
    if (!blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id) ||
        !blob_put_raw(&msg_buf, tb[UBUS_ATTR_METHOD],
                      (unsigned int)blob_raw_len(tb[UBUS_ATTR_METHOD])) ||
        !blob_put_string(&msg_buf, UBUS_ATTR_USER, cl->user) ||
        !blob_put_string(&msg_buf, UBUS_ATTR_GROUP, cl->group) ||
        (tb[UBUS_ATTR_DATA] && !blob_put_raw(&msg_buf, tb[UBUS_ATTR_DATA],
                                             (unsigned int)blob_raw_len(tb[UBUS_ATTR_DATA]))))
        return UBUS_STATUS_NO_MEMORY;
    /* Not checked against the size limit: a call near it grows past it by the names, and
     * the owner's library then drops the header and loses its place in the stream. */
    client_send(obj->owner, UBUS_MSG_INVOKE, msg->seq, cl->id.id, msg_buf.head, msg->fd);
    msg->fd = -1;
    return UBUS_STATUS_OK;
}

static void handle_invoke(struct client* cl, struct inmsg* msg, struct blob_attr** tb) {
    struct object* obj;
    uint32_t id;
    int status;

    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_METHOD]) {
        msg_send_status(cl, msg, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    if (id < UBUS_SYSTEM_OBJECT_MAX) {
        sysobj_invoke(cl, msg, id, blob_data(tb[UBUS_ATTR_METHOD]), tb[UBUS_ATTR_DATA]);
        return;
    }
    obj = object_find(id);
    /* Objects without a path may be called by anyone; the others' owners never hear of a
     * call that is not allowed, whether or not they have the method. */
    if (!obj)
        status = UBUS_STATUS_NOT_FOUND;
    else if (obj->path && !acl_allows_call(cl, obj->path, blob_data(tb[UBUS_ATTR_METHOD])))
        status = UBUS_STATUS_PERMISSION_DENIED;
    else
        status = forward_invoke(cl, msg, tb, obj);
    if (status != UBUS_STATUS_OK)
        msg_send_status(cl, msg, status);
}

/* An owner's DATA or STATUS for a caller: checked, then passed on with the object id as
 * peer. No record of calls is kept, so any well-formed reply from the owner goes through. */
static void forward_reply(struct client* cl, struct inmsg* msg, struct blob_attr** tb) {
    bool is_status = msg->type == UBUS_MSG_STATUS;
    struct client* caller;
    struct object* obj;

    if (!tb[UBUS_ATTR_OBJID] || !tb[is_status ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA])
        return;
    obj = object_find(blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (!obj || obj->owner != cl)
        return;
    caller = client_find(msg->peer);
    if (!caller)
        return;
    client_send(caller, msg->type, msg->seq, obj->id.id, msg->body, is_status ? msg->fd : -1);
    if (is_status)
        msg->fd = -1;
}

void proto_dispatch(struct client* cl, struct inmsg* msg) {
    struct blob_attr* tb[UBUS_ATTR_MAX];

    msg_parse(msg, tb);
    switch (msg->type) {
    case UBUS_MSG_PING:
        handle_ping(cl, msg);
        break;
    case UBUS_MSG_LOOKUP:
        lookup_start(cl, msg, tb);
        break;
    case UBUS_MSG_INVOKE:
        handle_invoke(cl, msg, tb);
        break;
    case UBUS_MSG_ADD_OBJECT:
        handle_add_object(cl, msg, tb);
        break;
    case UBUS_MSG_REMOVE_OBJECT:
        handle_remove_object(cl, msg, tb);
        break;
    case UBUS_MSG_SUBSCRIBE:
        subscribe_handle(cl, msg, tb);
        break;
    case UBUS_MSG_UNSUBSCRIBE:
        unsubscribe_handle(cl, msg, tb);
        break;
    case UBUS_MSG_NOTIFY:
        notify_handle(cl, msg, tb);
        break;
    case UBUS_MSG_DATA:
    case UBUS_MSG_STATUS:
        forward_reply(cl, msg, tb);
        break;
    default:
        msg_send_status(cl, msg, UBUS_STATUS_INVALID_COMMAND);
        break;
    }
    if (msg->fd >= 0) {
        close(msg->fd);
        msg->fd = -1;
    }
}
