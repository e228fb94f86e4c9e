/* Calls one method over the bus and prints what comes back, for the client's tests.
 * Usage: caller SOCKET OBJECT METHOD MESSAGE [TIMEOUT_MS], where MESSAGE names a prepared
 * message:
 *   none       no fields
 *   text       {"text": "hello"}
 *   number     {"text": 5 (int32), "other": "x"}
 *   malformed  {"text": an INT32 field of two bytes}
 * Prints "reply" for each reply, then "field NAME VALUE" for each of its string and
 * int32 fields, and finally "status N". */
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void print_reply(struct ubus_request* req, int type, struct blob_attr* msg) {
    struct blob_attr* cur;
    size_t rem;

    (void)req, (void)type;
    printf("reply\n");
    blob_for_each_attr(cur, msg, rem) {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING)
            printf("field %s %s\n", blobmsg_name(cur), blobmsg_get_string(cur));
        else if (blobmsg_type(cur) == BLOBMSG_TYPE_INT32)
            printf("field %s %u\n", blobmsg_name(cur), blobmsg_get_u32(cur));
    }
}

int main(int argc, char** argv) {
    static const unsigned char two[2] = {0, 1};
    struct ubus_context* ctx;
    struct blob_buf b = {0};
    uint32_t id;
    int status;

    if (argc != 5 && argc != 6)
        return 2;
    ctx = ubus_connect(argv[1]);
    if (!ctx)
        return 1;
    blob_buf_init(&b, 0);
    if (!strcmp(argv[4], "text")) {
        blobmsg_add_string(&b, "text", "hello");
    } else if (!strcmp(argv[4], "number")) {
        blobmsg_add_u32(&b, "text", 5);
        blobmsg_add_string(&b, "other", "x");
    } else if (!strcmp(argv[4], "malformed")) {
        blobmsg_add_field(&b, BLOBMSG_TYPE_INT32, "text", two, sizeof(two));
    } else if (strcmp(argv[4], "none") != 0) {
        return 2;
    }
    status = ubus_lookup_id(ctx, argv[2], &id);
    if (status == UBUS_STATUS_OK)
        status = ubus_invoke(ctx, id, argv[3], b.head, print_reply, NULL,
                             argc == 6 ? atoi(argv[5]) : 10000);
    printf("status %d\n", status);
    blob_buf_free(&b);
    ubus_free(ctx);
    return 0;
}
