/* Requests: starting them, matching replies, callbacks, and waiting for completion. */
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "libubus-internal.h"

static bool ubus_request_listed(const struct ubus_request* req) {
    return req->list.next && !list_empty(&req->list);
}

/* Zeroes `req` (callbacks are set by the caller afterwards) and sends its message. */
int ubus_start_request(struct ubus_context* ctx, struct ubus_request* req, struct blob_attr* msg,
                       int type, uint32_t peer, int fd) {
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->fd = fd;
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    return ubus_send_msg(ctx, req->seq, msg, type, peer, fd);
}

/* The request is unlisted before its callback runs, so the callback may free or reuse it. */
void ubus_request_finish(struct ubus_request* req, int status) {
    ubus_complete_handler_t complete_cb = req->complete_cb;

    req->status_code = status;
    req->status_msg = true;
    list_del_init(&req->list);
    ubus_queued_msgs_free(&req->pending);
    req->complete_cb = NULL;
    if (complete_cb)
        complete_cb(req, status);
}

static int ubus_status_of(struct blob_attr* msg) {
    struct blob_attr* tb[UBUS_ATTR_MAX];

    ubus_parse_msg(msg, tb);
    if (!tb[UBUS_ATTR_STATUS])
        return UBUS_STATUS_INVALID_ARGUMENT;
    return blob_get_int32(tb[UBUS_ATTR_STATUS]);
}

/* While its callbacks run the request is blocked: replies reaching it from a nested wait are
 * held back and delivered afterwards. */
static void ubus_request_data(struct ubus_request* req, struct blob_attr* msg) {
    struct blob_attr* tb[UBUS_ATTR_MAX];

    ubus_parse_msg(msg, tb);
    req->blocked = true;
    if (req->raw_data_cb)
        req->raw_data_cb(req, UBUS_MSG_DATA, msg);
    if (req->data_cb && tb[UBUS_ATTR_DATA] && !req->cancelled)
        req->data_cb(req, UBUS_MSG_DATA, tb[UBUS_ATTR_DATA]);
    req->blocked = false;
}

static void ubus_request_status(struct ubus_request* req, const struct ubus_msghdr* hdr,
                                struct blob_attr* msg) {
    if (req->notify)
        ubus_notify_reply(req, be32_to_cpu(hdr->peer), msg);
    else
        ubus_request_finish(req, ubus_status_of(msg));
}

static void ubus_request_deliver_held(struct ubus_request* req) {
    while (ubus_request_listed(req) && !list_empty(&req->pending)) {
        struct ubus_queued_msg* held =
            list_first_entry(&req->pending, struct ubus_queued_msg, list);
        struct blob_attr* msg = (struct blob_attr*)held->blob;

        list_del(&held->list);
        if (held->hdr.type == UBUS_MSG_STATUS)
            ubus_request_status(req, &held->hdr, msg);
        else
            ubus_request_data(req, msg);
        free(held);
    }
}

/* A notification is answered by the daemon (under the object's id) and by each subscriber
 * it listed (under the subscriber's object id), each of them once. */
static bool ubus_request_answered_by(const struct ubus_request* req, uint32_t peer) {
    const struct ubus_notify_request* nreq;

    if (!req->notify)
        return req->peer == peer;
    nreq = container_of(req, const struct ubus_notify_request, req);
    for (int i = 0; i <= UBUS_MAX_NOTIFY_PEERS; i++) {
        if ((nreq->pending & (1u << i)) && nreq->id[i] == peer)
            return true;
    }
    return false;
}

static struct ubus_request* ubus_find_request(struct ubus_context* ctx, uint16_t seq,
                                              uint32_t peer) {
    struct ubus_request* req;

    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq && ubus_request_answered_by(req, peer))
            return req;
    }
    return NULL;
}

void ubus_process_req_msg(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                          struct blob_attr* msg, int fd) {
    struct ubus_request* req =
        ubus_find_request(ctx, be16_to_cpu(hdr->seq), be32_to_cpu(hdr->peer));

    if (!req || hdr->type != UBUS_MSG_STATUS) {
        if (fd >= 0)
            close(fd);
    } else if (fd >= 0) {
        if (req->fd_cb)
            req->fd_cb(req, fd);
        else
            close(fd);
    }
    if (!req || !ubus_request_listed(req))
        return;

    if (req->blocked) {
        struct ubus_queued_msg* held = ubus_queued_msg_new(hdr, msg);

        /* DATA goes in front, so held data comes out newest first; the STATUS stays last. */
        if (held && hdr->type == UBUS_MSG_STATUS)
            list_add_tail(&held->list, &req->pending);
        else if (held)
            list_add(&held->list, &req->pending);
        return;
    }
    if (hdr->type == UBUS_MSG_STATUS) {
        ubus_request_status(req, hdr, msg);
        return;
    }
    ubus_request_data(req, msg);
    ubus_request_deliver_held(req);
}

void ubus_complete_request_async(struct ubus_context* ctx, struct ubus_request* req) {
    if (!ubus_request_listed(req))
        list_add(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context* ctx, struct ubus_request* req) {
    (void)ctx;
    if (!ubus_request_listed(req))
        return;
    req->cancelled = true;
    ubus_queued_msgs_free(&req->pending);
    list_del_init(&req->list);
}

void ubus_flush_requests(struct ubus_context* ctx) {
    struct list_head flushed;

    /* Requests started by the callbacks below are not part of this flush. */
    INIT_LIST_HEAD(&flushed);
    list_splice_init(&ctx->requests, &flushed);
    while (!list_empty(&flushed))
        ubus_request_finish(list_first_entry(&flushed, struct ubus_request, list),
                            UBUS_STATUS_TIMEOUT);
}

static void ubus_sync_request_done(struct ubus_request* req, int status) {
    (void)status;
    req->ctx->cancel_poll = true;
}

static int64_t ubus_now_ms(void) {
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Calls held back while waiting are served once no wait is left: from the pending timer when
 * uloop watches the socket, otherwise right away. */
static void ubus_resume_pending(struct ubus_context* ctx) {
    if (ctx->stack_depth || list_empty(&ctx->pending))
        return;
    if (ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, 1);
    else
        ubus_process_pending(ctx);
}

int ubus_complete_request(struct ubus_context* ctx, struct ubus_request* req, int timeout) {
    ubus_complete_handler_t complete_cb = req->complete_cb;
    int64_t deadline = ubus_now_ms() + timeout;
    int status;

    /* A request that has already finished must not be listed again. */
    if (!req->status_msg)
        ubus_complete_request_async(ctx, req);
    req->complete_cb = ubus_sync_request_done;
    ctx->stack_depth++;
    while (!req->status_msg && !ctx->sock.eof) {
        int wait_ms = -1;

        if (timeout > 0) {
            int64_t left = deadline - ubus_now_ms();

            if (left <= 0) {
                ubus_request_finish(req, UBUS_STATUS_TIMEOUT);
                break;
            }
            wait_ms = left > INT_MAX ? INT_MAX : (int)left;
        }
        ubus_wait_readable(ctx, wait_ms);
        ubus_handle_data(&ctx->sock, ULOOP_READ);
    }
    if (ctx->sock.eof) {
        ubus_abort_request(ctx, req);
        req->status_code = UBUS_STATUS_CONNECTION_FAILED;
        req->status_msg = true;
    }
    status = req->status_code;
    req->complete_cb = NULL;
    ctx->cancel_poll = false;
    ctx->stack_depth--;

    if (complete_cb)
        complete_cb(req, status);
    ubus_resume_pending(ctx);
    return status;
}

int ubus_invoke_async_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                         struct blob_attr* msg, struct ubus_request* req, int fd) {
    blob_buf_init(&ubus_build_buf, 0);
    blob_put_int32(&ubus_build_buf, UBUS_ATTR_OBJID, obj);
    if (method)
        blob_put_string(&ubus_build_buf, UBUS_ATTR_METHOD, method);
    ubus_put_payload(&ubus_build_buf, UBUS_ATTR_DATA, msg);

    if (ubus_start_request(ctx, req, ubus_build_buf.head, UBUS_MSG_INVOKE, obj, fd) < 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return 0;
}

int ubus_invoke_fd(struct ubus_context* ctx, uint32_t obj, const char* method,
                   struct blob_attr* msg, ubus_data_handler_t cb, void* priv, int timeout, int fd) {
    struct ubus_request req;
    int ret = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);

    if (ret)
        return ret;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}
