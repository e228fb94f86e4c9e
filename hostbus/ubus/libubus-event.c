/* Events: handlers registered with patterns at the daemon's object 1, and sending. */
#include "libubus-internal.h"

/* The arguments of requests to object 1, built apart from ubus_build_buf, which the invoke
 * itself is built in. */
static struct blob_buf ubus_event_buf;

/* Every event reaches the handler as a call of a method named after it. */
static int ubus_event_cb(struct ubus_context* ctx, struct ubus_object* obj,
                         struct ubus_request_data* req, const char* method, struct blob_attr* msg) {
    struct ubus_event_handler* ev = container_of(obj, struct ubus_event_handler, obj);

    (void)req;
    ev->cb(ctx, ev, method, msg);
    return 0;
}

static const struct ubus_method ubus_event_method = {.name = NULL, .handler = ubus_event_cb};

/* A refused pattern leaves the object published, for the next call to reuse. */
int ubus_register_event_handler(struct ubus_context* ctx, struct ubus_event_handler* ev,
                                const char* pattern) {
    struct ubus_object* obj = &ev->obj;
    int ret;

    if (!obj->id) {
        obj->methods = &ubus_event_method;
        obj->n_methods = 1;
        if (!obj->name != !obj->type)
            return UBUS_STATUS_INVALID_ARGUMENT;
        ret = ubus_add_object(ctx, obj);
        if (ret)
            return ret;
    }

    blob_buf_init(&ubus_event_buf, 0);
    blobmsg_add_u32(&ubus_event_buf, "object", obj->id);
    if (pattern)
        blobmsg_add_string(&ubus_event_buf, "pattern", pattern);
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", ubus_event_buf.head, NULL, NULL,
                       0);
}

int ubus_send_event(struct ubus_context* ctx, const char* id, struct blob_attr* data) {
    void* table;

    blob_buf_init(&ubus_event_buf, 0);
    blobmsg_add_string(&ubus_event_buf, "id", id);
    table = blobmsg_open_table(&ubus_event_buf, "data");
    blob_put_raw(&ubus_event_buf, blob_data(data), (unsigned int)blob_len(data));
    blobmsg_close_table(&ubus_event_buf, table);
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", ubus_event_buf.head, NULL, NULL, 0);
}
