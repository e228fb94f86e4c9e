/* Message attributes: the build buffer, parsing with type checks, and message copies. */
#include <stdlib.h>
#include <string.h>

#include "libubus-internal.h"

struct blob_buf ubus_build_buf;

/* Every attribute libubus reads is checked here, so that a malformed one counts as absent
 * instead of being read past its end. */
static const struct blob_attr_info ubus_attr_policy[UBUS_ATTR_MAX] = {
    [UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},
    [UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
    [UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},
    [UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
    [UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},
    [UBUS_ATTR_SIGNATURE] = {.type = BLOB_ATTR_NESTED},
    [UBUS_ATTR_DATA] = {.type = BLOB_ATTR_NESTED},
    [UBUS_ATTR_TARGET] = {.type = BLOB_ATTR_INT32},
    [UBUS_ATTR_ACTIVE] = {.type = BLOB_ATTR_INT8},
    [UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
    [UBUS_ATTR_SUBSCRIBERS] = {.type = BLOB_ATTR_NESTED},
    [UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
    [UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
};

/* `msg` was received whole (its raw length is what was read), so its children are bounded. */
void ubus_parse_msg(struct blob_attr* msg, struct blob_attr** tb) {
    memset(tb, 0, sizeof(*tb) * UBUS_ATTR_MAX);
    blob_parse_untrusted(msg, blob_raw_len(msg), tb, ubus_attr_policy, UBUS_ATTR_MAX);
}

struct ubus_queued_msg* ubus_queued_msg_new(const struct ubus_msghdr* hdr,
                                            const struct blob_attr* msg) {
    size_t len = blob_pad_len(msg);
    struct ubus_queued_msg* queued = malloc(sizeof(*queued) + len);

    if (!queued)
        return NULL;
    queued->hdr = *hdr;
    memcpy(queued->blob, msg, len);
    return queued;
}

void ubus_queued_msgs_free(struct list_head* list) {
    struct ubus_queued_msg *queued, *tmp;

    list_for_each_entry_safe(queued, tmp, list, list) {
        list_del(&queued->list);
        free(queued);
    }
}

/* Only the payload of `msg` is sent, so the caller's own attribute id never reaches the wire. */
void ubus_put_payload(struct blob_buf* buf, int id, const struct blob_attr* msg) {
    blob_put(buf, id, msg ? blob_data(msg) : NULL, msg ? (unsigned int)blob_len(msg) : 0);
}
