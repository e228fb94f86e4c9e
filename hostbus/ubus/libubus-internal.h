/* Declarations shared by the parts of libubus; not installed. */
#ifndef HOSTBUS_LIBUBUS_INTERNAL_H
#define HOSTBUS_LIBUBUS_INTERNAL_H

#include "libubus.h"

#include "ubus_config.h"

/* What a reader takes first: the header and the header word of the message's blob. */
struct ubus_wire_head {
    struct ubus_msghdr hdr;
    struct blob_attr blob;
};
_Static_assert(sizeof(struct ubus_wire_head) == 12, "header and blob header are read together");

/* A message kept for later: an INVOKE waiting for depth 0, or a reply held back while a
 * data callback of its request is still running. */
struct ubus_queued_msg {
    struct list_head list;
    struct ubus_msghdr hdr;
    uint32_t blob[]; /* the message's top-level blob attribute, padded */
};

/* The one buffer every outgoing message is built in; shared by all contexts. */
extern struct blob_buf ubus_build_buf __hidden;

/* libubus-msg.c */
__hidden void ubus_parse_msg(struct blob_attr* msg, struct blob_attr** tb);
__hidden struct ubus_queued_msg* ubus_queued_msg_new(const struct ubus_msghdr* hdr,
                                                     const struct blob_attr* msg);
__hidden void ubus_queued_msgs_free(struct list_head* list);
__hidden void ubus_put_payload(struct blob_buf* buf, int id, const struct blob_attr* msg);

/* libubus-io.c */
__hidden int ubus_send_msg(struct ubus_context* ctx, uint16_t seq, struct blob_attr* msg, int type,
                           uint32_t peer, int fd);
__hidden void ubus_handle_data(struct uloop_fd* u, unsigned int events);
__hidden void ubus_wait_readable(struct ubus_context* ctx, int timeout_ms);
__hidden void ubus_process_pending(struct ubus_context* ctx);
__hidden void ubus_pending_timer_cb(struct uloop_timeout* timer);

/* libubus-req.c */
__hidden int ubus_start_request(struct ubus_context* ctx, struct ubus_request* req,
                                struct blob_attr* msg, int type, uint32_t peer, int fd);
__hidden void ubus_request_finish(struct ubus_request* req, int status);
__hidden void ubus_process_req_msg(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                                   struct blob_attr* msg, int fd);

/* libubus-monitor.c */
__hidden void ubus_process_monitor(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                                   struct blob_attr* msg);

/* libubus-obj.c */
__hidden void ubus_process_invoke(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                                  struct blob_attr* msg, int fd);
__hidden int ubus_compare_object_ids(const void* k1, const void* k2, void* ptr);
__hidden void ubus_readd_objects(struct ubus_context* ctx);

/* libubus-sub.c */
__hidden void ubus_process_unsubscribe(struct ubus_context* ctx, struct blob_attr* msg);
__hidden void ubus_process_notify(struct ubus_context* ctx, struct blob_attr* msg);
__hidden void ubus_notify_reply(struct ubus_request* req, uint32_t peer, struct blob_attr* msg);
__hidden void ubus_resubscribe_auto(struct ubus_context* ctx);

#endif
