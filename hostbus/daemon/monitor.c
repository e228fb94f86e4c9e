/* Monitors: clients that get a copy of every message the daemon receives or sends,
 * registered through system object 3. */
#include <string.h>

#include "ubusd.h"

/* In registration order; each report goes to them in this order. */
static LIST_HEAD(monitors);
/* Reports are built apart from msg_buf, which may hold the very message being reported. */
static struct blob_buf report_buf;

void monitor_remove(struct client* cl) {
    list_del_init(&cl->monitor_entry);
}

/* Only root with group root may watch the bus: stricter than the access rules, which
 * let any root client through. */
int monitor_invoke(struct client* cl, const char* method) {
    if (cl->uid != 0 || cl->gid != 0)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (!strcmp(method, "add")) {
        /* A second add replaces the registration, numbered afresh and last in line: the
         * client never gets a report twice. */
        monitor_remove(cl);
        cl->monitor_seq = 0;
        list_add_tail(&cl->monitor_entry, &monitors);
        return UBUS_STATUS_OK;
    }
    if (!strcmp(method, "remove")) {
        monitor_remove(cl);
        return UBUS_STATUS_OK;
    }
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

void monitor_report(struct client* cl, bool send, uint8_t type, uint16_t seq, uint32_t peer,
                    const struct blob_attr* body) {
    struct client *mon, *tmp;

    if (list_empty(&monitors))
        return;
    blob_buf_init(&report_buf, 0);
    blob_put_int32(&report_buf, UBUS_MONITOR_CLIENT, cl->id.id);
    blob_put_int32(&report_buf, UBUS_MONITOR_PEER, peer);
    blob_put_int32(&report_buf, UBUS_MONITOR_SEQ, seq);
    blob_put_int32(&report_buf, UBUS_MONITOR_TYPE, type);
    blob_put_int8(&report_buf, UBUS_MONITOR_SEND, send);
    if (!blob_put(&report_buf, UBUS_MONITOR_DATA, blob_data(body), (unsigned int)blob_len(body)))
        return;
    /* A failed write takes the monitor off the list, hence the safe walk. */
    list_for_each_entry_safe(mon, tmp, &monitors, monitor_entry)
        client_send_unreported(mon, UBUS_MSG_MONITOR, ++mon->monitor_seq, 0, report_buf.head, -1);
}
