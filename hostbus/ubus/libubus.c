/* Connections: connecting, reconnecting (also automatically), shutting down, and status
 * texts. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "libubus-internal.h"

static const char* const ubus_status_texts[] = {
    [UBUS_STATUS_OK] = "Success",
    [UBUS_STATUS_INVALID_COMMAND] = "Invalid command",
    [UBUS_STATUS_INVALID_ARGUMENT] = "Invalid argument",
    [UBUS_STATUS_METHOD_NOT_FOUND] = "Method not found",
    [UBUS_STATUS_NOT_FOUND] = "Not found",
    [UBUS_STATUS_NO_DATA] = "No response",
    [UBUS_STATUS_PERMISSION_DENIED] = "Permission denied",
    [UBUS_STATUS_TIMEOUT] = "Request timed out",
    [UBUS_STATUS_NOT_SUPPORTED] = "Operation not supported",
    [UBUS_STATUS_UNKNOWN_ERROR] = "Unknown error",
    [UBUS_STATUS_CONNECTION_FAILED] = "Connection failed",
    [UBUS_STATUS_NO_MEMORY] = "Out of memory",
    [UBUS_STATUS_PARSE_ERROR] = "Parsing message data failed",
    [UBUS_STATUS_SYSTEM_ERROR] = "System error",
};

const char* ubus_strerror(int error) {
    static char unknown[32];

    if (error >= 0 && error < (int)ARRAY_SIZE(ubus_status_texts))
        return ubus_status_texts[error];
    snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
    return unknown;
}

static void ubus_default_connection_lost(struct ubus_context* ctx) {
    if (ctx->sock.registered)
        uloop_end();
}

static int ubus_open_socket(const char* path) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    int fd;

    if (strlen(path) >= sizeof(addr.sun_path))
        return -1;
    strcpy(addr.sun_path, path);

    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, (struct sockaddr*)&addr, sizeof(addr)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* The daemon writes HELLO in one piece, so each read has to return everything it asked for.
 * The id is kept exactly as it appears on the wire, without byte-order conversion. */
static bool ubus_read_hello(struct ubus_context* ctx) {
    struct ubus_wire_head hello;
    size_t payload;

    if (read(ctx->sock.fd, &hello, sizeof(hello)) != (ssize_t)sizeof(hello))
        return false;
    if (hello.hdr.version != 0 || blob_raw_len(&hello.blob) < sizeof(struct blob_attr) ||
        blob_pad_len(&hello.blob) > UBUS_MAX_MSGLEN || hello.hdr.type != UBUS_MSG_HELLO)
        return false;

    payload = blob_len(&hello.blob);
    if (payload) {
        if (!ctx->msgbuf.data || payload > ctx->msgbuf_data_len) {
            void* buf = realloc(ctx->msgbuf.data, payload);

            if (!buf)
                return false;
            ctx->msgbuf.data = buf;
            ctx->msgbuf_data_len = (uint32_t)payload;
        }
        if (read(ctx->sock.fd, ctx->msgbuf.data, payload) != (ssize_t)payload)
            return false;
    }

    memcpy(&ctx->local_id, &hello.hdr.peer, sizeof(ctx->local_id));
    return ctx->local_id > UBUS_CLIENT_ID_CHANNEL;
}

static int ubus_connect_socket(struct ubus_context* ctx, const char* path) {
    int flags;

    ctx->sock.fd = ubus_open_socket(path ? path : UBUS_UNIX_SOCKET);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;

    /* The closed descriptor's number stays in sock.fd, to be closed once more by the next
     * reconnect or shutdown. */
    if (!ubus_read_hello(ctx)) {
        close(ctx->sock.fd);
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    flags = fcntl(ctx->sock.fd, F_GETFL);
    fcntl(ctx->sock.fd, F_SETFL, flags | O_NONBLOCK);
    return 0;
}

int ubus_connect_ctx(struct ubus_context* ctx, const char* path) {
    memset(ctx, 0, sizeof(*ctx));
    uloop_init();

    ctx->sock.fd = -1;
    ctx->sock.cb = ubus_handle_data;
    ctx->pending_timer.cb = ubus_pending_timer_cb;
    ctx->connection_lost = ubus_default_connection_lost;
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    INIT_LIST_HEAD(&ctx->auto_subscribers);
    avl_init(&ctx->objects, ubus_compare_object_ids, false, NULL);

    ctx->msgbuf.data = malloc(UBUS_MSG_CHUNK_SIZE);
    if (!ctx->msgbuf.data)
        return -1;
    ctx->msgbuf_data_len = UBUS_MSG_CHUNK_SIZE;

    if (ubus_connect_socket(ctx, path)) {
        free(ctx->msgbuf.data);
        ctx->msgbuf.data = NULL;
        return -1;
    }
    return 0;
}

struct ubus_context* ubus_connect(const char* path) {
    struct ubus_context* ctx = calloc(1, sizeof(*ctx));

    if (!ctx)
        return NULL;
    if (ubus_connect_ctx(ctx, path)) {
        free(ctx);
        return NULL;
    }
    return ctx;
}

int ubus_reconnect(struct ubus_context* ctx, const char* path) {
    int ret;

    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    ctx->sock.eof = false;
    ctx->sock.error = false;

    ret = ubus_connect_socket(ctx, path);
    if (ret)
        return ret;
    ubus_readd_objects(ctx);
    ubus_resubscribe_auto(ctx);
    return 0;
}

static void ubus_auto_reconnect_cb(struct uloop_timeout* timer) {
    struct ubus_auto_conn* conn = container_of(timer, struct ubus_auto_conn, timer);

    if (ubus_reconnect(&conn->ctx, conn->path)) {
        uloop_timeout_set(timer, 1000);
        return;
    }
    ubus_add_uloop(&conn->ctx);
}

/* Reconnecting is silent, and conn->cb is not called again. */
static void ubus_auto_connection_lost(struct ubus_context* ctx) {
    struct ubus_auto_conn* conn = container_of(ctx, struct ubus_auto_conn, ctx);

    conn->timer.cb = ubus_auto_reconnect_cb;
    uloop_timeout_set(&conn->timer, 1000);
}

/* Every attempt is a fresh ubus_connect_ctx, so each one takes the signals over again. */
static void ubus_auto_connect_cb(struct uloop_timeout* timer) {
    struct ubus_auto_conn* conn = container_of(timer, struct ubus_auto_conn, timer);

    if (ubus_connect_ctx(&conn->ctx, conn->path)) {
        uloop_timeout_set(timer, 1000);
        fprintf(stderr, "failed to connect to ubus\n");
        return;
    }
    conn->ctx.connection_lost = ubus_auto_connection_lost;
    if (conn->cb)
        conn->cb(&conn->ctx);
    ubus_add_uloop(&conn->ctx);
}

void ubus_auto_connect(struct ubus_auto_conn* conn) {
    conn->timer.cb = ubus_auto_connect_cb;
    ubus_auto_connect_cb(&conn->timer);
}

void ubus_shutdown(struct ubus_context* ctx) {
    blob_buf_free(&ubus_build_buf);
    if (!ctx)
        return;

    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    uloop_timeout_cancel(&ctx->pending_timer);

    /* Outstanding requests get no callbacks, but no longer point into this context either. */
    while (!list_empty(&ctx->requests)) {
        struct ubus_request* req = list_first_entry(&ctx->requests, struct ubus_request, list);

        ubus_queued_msgs_free(&req->pending);
        list_del_init(&req->list);
    }
    ubus_queued_msgs_free(&ctx->pending);
    free(ctx->msgbuf.data);
    ctx->msgbuf.data = NULL;
    ctx->msgbuf_data_len = 0;
}

void ubus_free(struct ubus_context* ctx) {
    ubus_shutdown(ctx);
    free(ctx);
}
