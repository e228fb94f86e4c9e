/* Looking up published objects by path. */
#include "libubus-internal.h"

struct ubus_lookup_request {
    struct ubus_request req;
    ubus_lookup_handler_t cb;
};

static int ubus_start_lookup(struct ubus_context* ctx, struct ubus_request* req, const char* path) {
    blob_buf_init(&ubus_build_buf, 0);
    if (path)
        blob_put_string(&ubus_build_buf, UBUS_ATTR_OBJPATH, path);
    return ubus_start_request(ctx, req, ubus_build_buf.head, UBUS_MSG_LOOKUP, 0, -1);
}

static void ubus_lookup_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct ubus_lookup_request* lookup = container_of(req, struct ubus_lookup_request, req);
    struct blob_attr* tb[UBUS_ATTR_MAX];
    struct ubus_object_data obj;

    (void)type;
    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_OBJID] || !tb[UBUS_ATTR_OBJPATH] || !tb[UBUS_ATTR_OBJTYPE])
        return;

    obj.id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
    obj.type_id = blob_get_u32(tb[UBUS_ATTR_OBJTYPE]);
    obj.path = blob_data(tb[UBUS_ATTR_OBJPATH]);
    obj.signature = tb[UBUS_ATTR_SIGNATURE];
    if (lookup->cb)
        lookup->cb(req->ctx, &obj, req->priv);
}

int ubus_lookup(struct ubus_context* ctx, const char* path, ubus_lookup_handler_t cb, void* priv) {
    struct ubus_lookup_request lookup;

    if (ubus_start_lookup(ctx, &lookup.req, path) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    lookup.req.raw_data_cb = ubus_lookup_cb;
    lookup.req.priv = priv;
    lookup.cb = cb;
    return ubus_complete_request(ctx, &lookup.req, 0);
}

static void ubus_lookup_id_cb(struct ubus_request* req, int type, struct blob_attr* msg) {
    uint32_t* id = req->priv;
    struct blob_attr* tb[UBUS_ATTR_MAX];

    (void)type;
    ubus_parse_msg(msg, tb);
    if (tb[UBUS_ATTR_OBJID])
        *id = blob_get_u32(tb[UBUS_ATTR_OBJID]);
}

int ubus_lookup_id(struct ubus_context* ctx, const char* path, uint32_t* id) {
    struct ubus_request req;

    if (ubus_start_lookup(ctx, &req, path) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.raw_data_cb = ubus_lookup_id_cb;
    req.priv = id;
    return ubus_complete_request(ctx, &req, 0);
}
