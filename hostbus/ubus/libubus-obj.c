/* Local objects: publishing them, serving the calls they receive, and replying. */
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "libubus-internal.h"

struct ubus_add_object_state {
    struct ubus_object* obj;
    bool got_id;
};

int ubus_compare_object_ids(const void* k1, const void* k2, void* ptr) {
    uint32_t id1 = *(const uint32_t*)k1;
    uint32_t id2 = *(const uint32_t*)k2;

    (void)ptr;
    return id1 < id2 ? -1 : id1 > id2;
}

static bool ubus_object_registered(struct ubus_context* ctx, struct ubus_object* obj) {
    return avl_find(&ctx->objects, &obj->id) == &obj->avl;
}

static bool ubus_object_set_id(struct ubus_context* ctx, struct ubus_object* obj, uint32_t id) {
    if (ubus_object_registered(ctx, obj))
        avl_delete(&ctx->objects, &obj->avl);
    obj->id = id;
    obj->avl.key = &obj->id;
    return avl_insert(&ctx->objects, &obj->avl) == 0;
}

static bool ubus_policy_published(unsigned long mask, int i) {
    if (!mask)
        return true;
    return i < (int)(sizeof(mask) * CHAR_BIT) && (mask & (1ul << i));
}

/* One TABLE per method, named after it, holding an INT32 per published argument whose value
 * is the argument's blobmsg type. */
static bool ubus_put_signature(struct blob_buf* buf, const struct ubus_object_type* type) {
    void* signature = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);

    if (!signature)
        return false;
    for (int m = 0; m < type->n_methods; m++) {
        const struct ubus_method* method = &type->methods[m];
        void* table = blobmsg_open_table(buf, method->name ? method->name : "");

        if (!table)
            return false;
        for (int i = 0; i < method->n_policy; i++) {
            const struct blobmsg_policy* policy = &method->policy[i];

            if (ubus_policy_published(method->mask, i))
                blobmsg_add_u32(buf, policy->name ? policy->name : "", (uint32_t)policy->type);
        }
        blobmsg_close_table(buf, table);
    }
    blob_nest_end(buf, signature);
    return true;
}

static void ubus_add_object_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct ubus_add_object_state* state = req->priv;
    struct ubus_object* obj = state->obj;
    struct blob_attr* tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID])
        return;
    state->got_id = ubus_object_set_id(req->ctx, obj, blob_get_u32(tb[UBUS_ATTR_OBJID]));
    if (tb[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
}

int ubus_add_object(struct ubus_context* ctx, struct ubus_object* obj) {
    struct ubus_add_object_state state = {.obj = obj, .got_id = false};
    struct ubus_request req;
    int ret;

    blob_buf_init(&ubus_build_buf, 0);
    if (obj->name && obj->type) {
        blob_put_string(&ubus_build_buf, UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id)
            blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJTYPE, obj->type->id);
        else if (!ubus_put_signature(&ubus_build_buf, obj->type))
            return UBUS_STATUS_NO_MEMORY;
    }
    if (ubus_start_request(ctx, &req, ubus_build_buf.head, UBUS_MSG_ADD_OBJECT, 0, -1) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;

    req.raw_data_cb = ubus_add_object_cb;
    req.priv = &state;
    ret = ubus_complete_request(ctx, &req, 0);
    if (ret)
        return ret;
    return state.got_id ? 0 : UBUS_STATUS_NO_DATA;
}

static void ubus_remove_object_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct ubus_object* obj = req->priv;
    struct blob_attr* tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID])
        return;
    if (ubus_object_registered(req->ctx, obj))
        avl_delete(&req->ctx->objects, &obj->avl);
    obj->id = 0;
    /* OBJTYPE comes back when this was the last object of its type: the type is gone. */
    if (tb[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = 0;
}

int ubus_remove_object(struct ubus_context* ctx, struct ubus_object* obj) {
    struct ubus_request req;
    int ret;

    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, obj->id);
    if (ubus_start_request(ctx, &req, ubus_build_buf.head, UBUS_MSG_REMOVE_OBJECT, 0, -1) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;

    req.raw_data_cb = ubus_remove_object_cb;
    req.priv = obj;
    ret = ubus_complete_request(ctx, &req, 0);
    if (ret)
        return ret;
    return obj->id ? UBUS_STATUS_NO_DATA : 0;
}

/* Objects get new ids and their types are published afresh on the new connection; one that
 * cannot be published again is left out, with id 0. */
void ubus_readd_objects(struct ubus_context* ctx) {
    struct list_head readd;
    struct ubus_object* obj;

    INIT_LIST_HEAD(&readd);
    while (!avl_is_empty(&ctx->objects)) {
        obj = avl_first_element(&ctx->objects, obj, avl);
        avl_delete(&ctx->objects, &obj->avl);
        if (obj->type)
            obj->type->id = 0;
        list_add_tail(&obj->avl.list, &readd);
    }
    while (!list_empty(&readd)) {
        obj = list_first_entry(&readd, struct ubus_object, avl.list);
        list_del(&obj->avl.list);
        if (ubus_add_object(ctx, obj))
            obj->id = 0;
    }
}

int ubus_send_reply(struct ubus_context* ctx, struct ubus_request_data* req,
                    struct blob_attr* msg) {
    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, req->object);
    ubus_put_payload(&ubus_build_buf, UBUS_ATTR_DATA, msg);
    if (ubus_send_msg(ctx, req->seq, ubus_build_buf.head, UBUS_MSG_DATA, req->peer, -1) < 0)
        return UBUS_STATUS_NO_DATA;
    return 0;
}

void ubus_complete_deferred_request(struct ubus_context* ctx, struct ubus_request_data* req,
                                    int ret) {
    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_STATUS, (uint32_t)ret);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, req->object);
    ubus_send_msg(ctx, req->seq, ubus_build_buf.head, UBUS_MSG_STATUS, req->peer, req->fd);
    req->fd = -1;
}

static const struct ubus_method* ubus_find_method(const struct ubus_object* obj, const char* name) {
    for (int i = 0; i < obj->n_methods; i++) {
        const struct ubus_method* method = &obj->methods[i];

        if (!method->name || !strcmp(method->name, name))
            return method;
    }
    return NULL;
}

/* Serves one call. Errors found before the request is known go back with seq, peer and
 * object 0; the daemon drops those. */
void ubus_process_invoke(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                         struct blob_attr* msg, int fd) {
    struct ubus_request_data req = {.fd = -1, .req_fd = fd};
    struct blob_attr* tb[UBUS_ATTR_MAX];
    const struct ubus_method* method;
    struct ubus_object* obj;
    const char* name;
    uint32_t id;
    bool no_reply;
    int ret;

    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID])
        goto out;
    no_reply = tb[UBUS_ATTR_NO_REPLY] && blob_get_int8(tb[UBUS_ATTR_NO_REPLY]);
    id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj = avl_find_element(&ctx->objects, &id, obj, avl);
    if (!obj) {
        ret = UBUS_STATUS_NOT_FOUND;
        goto reply;
    }
    if (!tb[UBUS_ATTR_METHOD]) {
        ret = UBUS_STATUS_INVALID_ARGUMENT;
        goto reply;
    }

    req.object = obj->id;
    req.peer = be32_to_cpu(hdr->peer);
    req.seq = be16_to_cpu(hdr->seq);
    if (tb[UBUS_ATTR_USER] && tb[UBUS_ATTR_GROUP]) {
        req.acl.user = blob_data(tb[UBUS_ATTR_USER]);
        req.acl.group = blob_data(tb[UBUS_ATTR_GROUP]);
    }
    req.acl.object = obj->name;

    name = blob_data(tb[UBUS_ATTR_METHOD]);
    method = ubus_find_method(obj, name);
    if (!method) {
        ret = UBUS_STATUS_METHOD_NOT_FOUND;
        goto reply;
    }
    if (!tb[UBUS_ATTR_DATA]) {
        ret = UBUS_STATUS_INVALID_ARGUMENT;
        goto reply;
    }
    if (!method->handler) {
        ret = UBUS_STATUS_NOT_SUPPORTED;
        goto reply;
    }

    ctx->stack_depth++;
    ret = method->handler(ctx, obj, &req, name, tb[UBUS_ATTR_DATA]);
    ctx->stack_depth--;

reply:
    if (req.req_fd >= 0)
        close(req.req_fd);
    if (req.deferred)
        return;
    if (no_reply) {
        if (req.fd >= 0)
            close(req.fd);
        return;
    }
    ubus_complete_deferred_request(ctx, &req, ret);
    return;

out:
    if (fd >= 0)
        close(fd);
}
