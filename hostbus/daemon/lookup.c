/* LOOKUP: listings in path order. A listing waits while the client's output queue holds
 * anything and goes on object by object as it drains, so a large listing never has to be
 * queued (and partly dropped) at once. The client's further input waits until it ends. */
#include <string.h>

#include <libubox/blobmsg.h>

#include "ubusd.h"

struct lookup {
    uint16_t seq;
    uint32_t peer;
    bool all;       /* no path given */
    bool prefix;    /* the path ended in '*' */
    bool matched;   /* some path matched, shown or not */
    char* resume;   /* path to continue from, NULL at the start */
    char pattern[]; /* exact path, or the prefix without its '*' */
};

static bool lookup_matches(const struct lookup* lk, const struct object* obj) {
    if (lk->all)
        return true;
    if (lk->prefix)
        return strncmp(obj->path, lk->pattern, strlen(lk->pattern)) == 0;
    return strcmp(obj->path, lk->pattern) == 0;
}

/* Root sees every method; other clients only those they may call. */
static void put_signature(const struct client* cl, const struct object* obj) {
    struct blob_attr* signature = obj->type->signature;
    struct blob_attr* cur;
    void* nest;
    size_t rem;

    if (cl->privileged) {
        blob_put_raw(&msg_buf, signature, (unsigned int)blob_raw_len(signature));
        return;
    }
    nest = blob_nest_start(&msg_buf, UBUS_ATTR_SIGNATURE);
    blob_for_each_attr(cur, signature, rem) {
        if (acl_allows_call(cl, obj->path, blobmsg_name(cur)))
            blob_put_raw(&msg_buf, cur, (unsigned int)blob_raw_len(cur));
    }
    blob_nest_end(&msg_buf, nest);
}

static void send_object(struct client* cl, const struct lookup* lk, const struct object* obj) {
    msg_start();
    blob_put_string(&msg_buf, UBUS_ATTR_OBJPATH, obj->path);
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, obj->id.id);
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJTYPE, obj->type->id.id);
    put_signature(cl, obj);
    client_send(cl, UBUS_MSG_DATA, lk->seq, lk->peer, msg_buf.head, -1);
}

static void lookup_finish(struct client* cl) {
    struct lookup* lk = cl->lookup;
    int status = lk->all || lk->matched ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;

    msg_start();
    blob_put_int32(&msg_buf, UBUS_ATTR_STATUS, (uint32_t)status);
    client_send(cl, UBUS_MSG_STATUS, lk->seq, lk->peer, msg_buf.head, -1);
    lookup_cancel(cl);
    client_update_events(cl);
}

void lookup_continue(struct client* cl) {
    struct lookup* lk = cl->lookup;
    const char* from = lk->resume ? lk->resume : lk->all ? NULL : lk->pattern;
    struct object* obj;

    for (obj = object_first_from(from); obj; obj = object_next(obj)) {
        /* Matching paths are contiguous in path order. */
        if (!lookup_matches(lk, obj))
            break;
        lk->matched = true;
        if (!object_visible_to(obj, cl))
            continue;
        if (!client_queue_empty(cl)) {
            char* resume = strdup(obj->path);

            /* Without memory for the bookmark, go on and let the queue bound apply. */
            if (resume) {
                free(lk->resume);
                lk->resume = resume;
                return;
            }
        }
        send_object(cl, lk, obj);
        if (cl->dead)
            return;
    }
    lookup_finish(cl);
}

void lookup_start(struct client* cl, const struct inmsg* msg, struct blob_attr** tb) {
    const char* path = tb[UBUS_ATTR_OBJPATH] ? blob_data(tb[UBUS_ATTR_OBJPATH]) : NULL;
    size_t len = path ? strlen(path) : 0;
    struct lookup* lk;

    if (path && !len) {
        msg_send_status(cl, msg, UBUS_STATUS_INVALID_ARGUMENT);
        return;
    }
    lk = calloc(1, sizeof(*lk) + len + 1);
    if (!lk) {
        msg_send_status(cl, msg, UBUS_STATUS_NO_MEMORY);
        return;
    }
    lk->seq = msg->seq;
    lk->peer = msg->peer;
    lk->all = !path;
    if (path) {
        lk->prefix = path[len - 1] == '*';
        memcpy(lk->pattern, path, lk->prefix ? len - 1 : len);
    }
    cl->lookup = lk;
    lookup_continue(cl);
}

void lookup_cancel(struct client* cl) {
    if (!cl->lookup)
        return;
    free(cl->lookup->resume);
    free(cl->lookup);
    cl->lookup = NULL;
}
