/* The built-in objects 1 (events), 2 (ACL query) and 3 (monitor), answered by the daemon.
 * Their replies carry the request's seq and peer, like any reply of the daemon's own. */
#include <string.h>

#include "ubusd.h"

static int events_invoke(struct client* cl, const char* method, struct blob_attr* data) {
    if (!strcmp(method, "register"))
        return events_register(cl, data);
    if (!strcmp(method, "send"))
        return events_send(cl, data);
    return UBUS_STATUS_INVALID_COMMAND;
}

static int acl_invoke(struct client* cl, const struct inmsg* msg, const char* method) {
    void* data;

    if (strcmp(method, "query"))
        return UBUS_STATUS_INVALID_COMMAND;
    msg_start();
    blob_put_int32(&msg_buf, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_ACL);
    data = blob_nest_start(&msg_buf, UBUS_ATTR_DATA);
    acl_put_query(&msg_buf, cl);
    blob_nest_end(&msg_buf, data);
    msg_send(cl, UBUS_MSG_DATA, msg);
    return UBUS_STATUS_OK;
}

void sysobj_invoke(struct client* cl, const struct inmsg* msg, uint32_t objid, const char* method,
                   struct blob_attr* data) {
    int status;

    switch (objid) {
    case UBUS_SYSTEM_OBJECT_EVENT:
        status = events_invoke(cl, method, data);
        break;
    case UBUS_SYSTEM_OBJECT_ACL:
        status = acl_invoke(cl, msg, method);
        break;
    case UBUS_SYSTEM_OBJECT_MONITOR:
        status = monitor_invoke(cl, method);
        break;
    default:
        status = UBUS_STATUS_NOT_FOUND;
        break;
    }
    msg_send_status(cl, msg, status);
}
