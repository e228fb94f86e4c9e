/* The socket: sending framed messages, reading them back, and dispatching what arrives. */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "libubus-internal.h"

/* After this many consecutive small messages an enlarged receive buffer shrinks back. */
#define UBUS_MSGBUF_SHRINK_AFTER 16

static void ubus_close_fd(int* fd) {
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

/* Waits until the socket can be written; a failure shows up in the next sendmsg. */
static void ubus_wait_writable(int sock) {
    struct pollfd pfd = {.fd = sock, .events = POLLOUT};

    poll(&pfd, 1, -1);
}

void ubus_wait_readable(struct ubus_context* ctx, int timeout_ms) {
    struct pollfd pfd = {.fd = ctx->sock.fd, .events = POLLIN};

    poll(&pfd, 1, timeout_ms);
}

static ssize_t ubus_sendmsg_once(int sock, struct iovec* iov, int iovcnt, int fd) {
    union {
        struct cmsghdr hdr;
        char buf[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr msg = {.msg_iov = iov, .msg_iovlen = (size_t)iovcnt};

    if (fd >= 0) {
        struct cmsghdr* cmsg;

        memset(&control, 0, sizeof(control));
        msg.msg_control = &control;
        msg.msg_controllen = sizeof(control.buf);
        cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    }
    return sendmsg(sock, &msg, MSG_NOSIGNAL);
}

static void ubus_iov_advance(struct iovec** iov, int* iovcnt, size_t n) {
    while (*iovcnt && n >= (*iov)->iov_len) {
        n -= (*iov)->iov_len;
        (*iov)++;
        (*iovcnt)--;
    }
    if (*iovcnt) {
        (*iov)->iov_base = (char*)(*iov)->iov_base + n;
        (*iov)->iov_len -= n;
    }
}

/* Writes header and blob completely; `fd` (if any) travels with the first bytes and is
 * closed here in every case. */
int ubus_send_msg(struct ubus_context* ctx, uint16_t seq, struct blob_attr* msg, int type,
                  uint32_t peer, int fd) {
    struct ubus_msghdr hdr = {
        .version = 0,
        .type = (uint8_t)type,
        .seq = cpu_to_be16(seq),
        .peer = cpu_to_be32(peer),
    };
    struct iovec iovs[2] = {
        {.iov_base = &hdr, .iov_len = sizeof(hdr)},
        {.iov_base = msg, .iov_len = blob_raw_len(msg)},
    };
    struct iovec* iov = iovs;
    int iovcnt = 2;
    int ret = 0;

    if (blob_pad_len(msg) > UBUS_MAX_MSGLEN) {
        ubus_close_fd(&fd);
        return -1;
    }

    while (iovcnt) {
        ssize_t n = ubus_sendmsg_once(ctx->sock.fd, iov, iovcnt, fd);

        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                ubus_wait_writable(ctx->sock.fd);
                continue;
            }
            ctx->sock.eof = true;
            ret = -1;
            break;
        }
        /* The fd went out with these bytes; it must not be sent a second time. */
        ubus_close_fd(&fd);
        ubus_iov_advance(&iov, &iovcnt, (size_t)n);
    }
    ubus_close_fd(&fd);
    return ret;
}

/* Keeps the first fd passed in `msg` (in *fd when that is still free) and closes the rest. */
static void ubus_take_fds(struct msghdr* msg, int* fd) {
    struct cmsghdr* cmsg;

    for (cmsg = CMSG_FIRSTHDR(msg); cmsg; cmsg = CMSG_NXTHDR(msg, cmsg)) {
        size_t count;

        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS)
            continue;
        count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int received;

            memcpy(&received, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            if (*fd < 0)
                *fd = received;
            else
                close(received);
        }
    }
}

static ssize_t ubus_recv_some(int sock, void* buf, size_t len, int* fd) {
    union {
        struct cmsghdr hdr;
        char buf[CMSG_SPACE(sizeof(int))];
    } control;
    struct iovec iov = {.iov_base = buf, .iov_len = len};
    struct msghdr msg = {
        .msg_iov = &iov,
        .msg_iovlen = 1,
        .msg_control = &control,
        .msg_controllen = sizeof(control.buf),
    };
    ssize_t n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);

    if (n > 0)
        ubus_take_fds(&msg, fd);
    return n;
}

enum ubus_fill_result {
    UBUS_FILL_EMPTY, /* nothing was available */
    UBUS_FILL_DONE,
    UBUS_FILL_LOST, /* end of stream or error; eof is set */
};

/* Reads exactly `len` bytes. Once a message has started, the rest is waited for, since the
 * peer writes each message in one go. */
static enum ubus_fill_result ubus_recv_fill(struct ubus_context* ctx, void* buf, size_t len,
                                            bool started, int* fd) {
    size_t done = 0;

    while (done < len) {
        ssize_t n = ubus_recv_some(ctx->sock.fd, (char*)buf + done, len - done, fd);

        if (n > 0) {
            done += (size_t)n;
            started = true;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!started)
                return UBUS_FILL_EMPTY;
            ubus_wait_readable(ctx, -1);
            continue;
        }
        ctx->sock.eof = true;
        return UBUS_FILL_LOST;
    }
    return UBUS_FILL_DONE;
}

/* Makes room for a message of `size` padded bytes in the receive buffer, which is absent while
 * a message taken from it is being dispatched. */
static bool ubus_reserve_msgbuf(struct ubus_context* ctx, size_t size) {
    size_t want = size > UBUS_MSG_CHUNK_SIZE ? size : UBUS_MSG_CHUNK_SIZE;
    bool fits = ctx->msgbuf.data && size <= ctx->msgbuf_data_len;
    void* buf;

    if (fits) {
        /* A buffer enlarged for a big message returns to its usual size after a run of
         * small ones. */
        if (ctx->msgbuf_data_len <= UBUS_MSG_CHUNK_SIZE || size > UBUS_MSG_CHUNK_SIZE) {
            ctx->msgbuf_reduction_counter = 0;
            return true;
        }
        if (++ctx->msgbuf_reduction_counter < UBUS_MSGBUF_SHRINK_AFTER)
            return true;
    }
    buf = realloc(ctx->msgbuf.data, want);
    if (!buf)
        return fits;
    ctx->msgbuf.data = buf;
    ctx->msgbuf_data_len = (uint32_t)want;
    ctx->msgbuf_reduction_counter = 0;
    return true;
}

/* Reads one message into ctx->msgbuf. A header with a foreign version or an impossible length
 * is dropped by itself, without its body. */
static bool ubus_recv_msg(struct ubus_context* ctx, int* fd) {
    struct ubus_wire_head head;
    size_t raw_len, pad_len;

    if (ubus_recv_fill(ctx, &head, sizeof(head), false, fd) != UBUS_FILL_DONE)
        goto fail;

    raw_len = blob_raw_len(&head.blob);
    pad_len = blob_pad_len(&head.blob);
    if (head.hdr.version != 0 || raw_len < sizeof(struct blob_attr) || pad_len > UBUS_MAX_MSGLEN)
        goto fail;

    if (!ubus_reserve_msgbuf(ctx, pad_len)) {
        ctx->sock.eof = true;
        goto fail;
    }
    ctx->msgbuf.hdr = head.hdr;
    memcpy(ctx->msgbuf.data, &head.blob, sizeof(head.blob));
    memset((char*)ctx->msgbuf.data + raw_len, 0, pad_len - raw_len);
    if (ubus_recv_fill(ctx, (char*)ctx->msgbuf.data + sizeof(head.blob),
                       raw_len - sizeof(head.blob), true, fd) != UBUS_FILL_DONE)
        goto fail;
    return true;

fail:
    ubus_close_fd(fd);
    return false;
}

static void ubus_queue_pending(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                               struct blob_attr* msg) {
    struct ubus_queued_msg* queued = ubus_queued_msg_new(hdr, msg);

    if (queued)
        list_add_tail(&queued->list, &ctx->pending);
}

static void ubus_process_msg(struct ubus_context* ctx, const struct ubus_msghdr* hdr,
                             struct blob_attr* msg, int fd) {
    switch (hdr->type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        ubus_process_req_msg(ctx, hdr, msg, fd);
        return;
    case UBUS_MSG_MONITOR:
        /* Reports are not calls: they go out at once, even inside a synchronous wait. */
        ubus_process_monitor(ctx, hdr, msg);
        break;
    case UBUS_MSG_INVOKE:
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
        /* Handlers never run inside a synchronous wait: calls and notices arriving meanwhile
         * wait, in order, until every wait has returned. */
        if (ctx->stack_depth) {
            ubus_queue_pending(ctx, hdr, msg);
            break;
        }
        if (hdr->type == UBUS_MSG_INVOKE) {
            ubus_process_invoke(ctx, hdr, msg, fd);
            return;
        }
        if (hdr->type == UBUS_MSG_UNSUBSCRIBE)
            ubus_process_unsubscribe(ctx, msg);
        else
            ubus_process_notify(ctx, msg);
        break;
    default:
        break;
    }
    ubus_close_fd(&fd);
}

void ubus_process_pending(struct ubus_context* ctx) {
    while (!ctx->stack_depth && !list_empty(&ctx->pending)) {
        struct ubus_queued_msg* queued =
            list_first_entry(&ctx->pending, struct ubus_queued_msg, list);

        list_del(&queued->list);
        ubus_process_msg(ctx, &queued->hdr, (struct blob_attr*)queued->blob, -1);
        free(queued);
    }
}

void ubus_pending_timer_cb(struct uloop_timeout* timer) {
    struct ubus_context* ctx = container_of(timer, struct ubus_context, pending_timer);

    ubus_process_pending(ctx);
}

/* The message is taken out of the receive buffer while it is dispatched, so that reads made
 * from inside callbacks cannot overwrite it. */
static void ubus_dispatch_received(struct ubus_context* ctx, int fd) {
    struct ubus_msghdr hdr = ctx->msgbuf.hdr;
    struct blob_attr* msg = ctx->msgbuf.data;
    uint32_t len = ctx->msgbuf_data_len;

    ctx->msgbuf.data = NULL;
    ctx->msgbuf_data_len = 0;
    ubus_process_msg(ctx, &hdr, msg, fd);
    if (ctx->msgbuf.data) {
        free(msg);
        return;
    }
    ctx->msgbuf.data = msg;
    ctx->msgbuf_data_len = len;
}

void ubus_handle_data(struct uloop_fd* u, unsigned int events) {
    struct ubus_context* ctx = container_of(u, struct ubus_context, sock);
    int fd = -1;

    (void)events;
    /* Reading goes on after uloop saw a hang-up: replies sent just before it are still queued. */
    for (;;) {
        if (!ctx->stack_depth)
            ubus_process_pending(ctx);
        if (!ubus_recv_msg(ctx, &fd))
            break;
        ubus_dispatch_received(ctx, fd);
        fd = -1;
        if (uloop_cancelling() || ctx->cancel_poll)
            break;
    }
    if (!ctx->stack_depth)
        ubus_process_pending(ctx);
    if (u->eof) {
        ubus_flush_requests(ctx);
        if (ctx->connection_lost)
            ctx->connection_lost(ctx);
    }
}
