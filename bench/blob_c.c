#include "blob_c.h"

void c_encode_flat(struct blob_buf* b) {
    blob_buf_init(b, 0);
    blobmsg_add_u32(b, "id", 7);
    blobmsg_add_string(b, "name", "bench");
    blobmsg_add_u8(b, "flag", 1);
    blobmsg_add_u64(b, "count", 123456789012ULL);
    blobmsg_add_string(b, "path", "/var/run/bench.sock");
}

void c_encode_nested(struct blob_buf* b) {
    void* config;
    void* addrs;

    blob_buf_init(b, 0);
    blobmsg_add_string(b, "name", "eth0");
    config = blobmsg_open_table(b, "config");
    blobmsg_add_u32(b, "mtu", 1500);
    blobmsg_add_u8(b, "enabled", 1);
    addrs = blobmsg_open_array(b, "addrs");
    blobmsg_add_string(b, NULL, "10.0.0.1");
    blobmsg_add_string(b, NULL, "10.0.0.2");
    blobmsg_add_string(b, NULL, "fe80::1");
    blobmsg_close_array(b, addrs);
    blobmsg_close_table(b, config);
}

enum { F_ID, F_NAME, F_FLAG, F_COUNT, F_PATH, F_MAX };

static const struct blobmsg_policy flat_policy[F_MAX] = {
    [F_ID] = {.name = "id", .type = BLOBMSG_TYPE_INT32},
    [F_NAME] = {.name = "name", .type = BLOBMSG_TYPE_STRING},
    [F_FLAG] = {.name = "flag", .type = BLOBMSG_TYPE_INT8},
    [F_COUNT] = {.name = "count", .type = BLOBMSG_TYPE_INT64},
    [F_PATH] = {.name = "path", .type = BLOBMSG_TYPE_STRING},
};

int c_decode_flat(struct blob_attr* msg, struct flat_msg* out) {
    struct blob_attr* tb[F_MAX];

    if (blobmsg_parse(flat_policy, F_MAX, tb, blob_data(msg), blob_len(msg)) < 0)
        return -1;
    for (int i = 0; i < F_MAX; i++)
        if (!tb[i])
            return -1;
    out->id = blobmsg_get_u32(tb[F_ID]);
    out->name = blobmsg_get_string(tb[F_NAME]);
    out->flag = blobmsg_get_bool(tb[F_FLAG]);
    out->count = blobmsg_get_u64(tb[F_COUNT]);
    out->path = blobmsg_get_string(tb[F_PATH]);
    return 0;
}

enum { N_NAME, N_CONFIG, N_MAX };
enum { C_MTU, C_ENABLED, C_ADDRS, C_MAX };

static const struct blobmsg_policy nested_policy[N_MAX] = {
    [N_NAME] = {.name = "name", .type = BLOBMSG_TYPE_STRING},
    [N_CONFIG] = {.name = "config", .type = BLOBMSG_TYPE_TABLE},
};

static const struct blobmsg_policy config_policy[C_MAX] = {
    [C_MTU] = {.name = "mtu", .type = BLOBMSG_TYPE_INT32},
    [C_ENABLED] = {.name = "enabled", .type = BLOBMSG_TYPE_INT8},
    [C_ADDRS] = {.name = "addrs", .type = BLOBMSG_TYPE_ARRAY},
};

int c_decode_nested(struct blob_attr* msg, struct nested_msg* out) {
    struct blob_attr* tb[N_MAX];
    struct blob_attr* cfg[C_MAX];
    struct blob_attr* cur;
    size_t rem;

    if (blobmsg_parse(nested_policy, N_MAX, tb, blob_data(msg), blob_len(msg)) < 0 || !tb[N_NAME] ||
        !tb[N_CONFIG])
        return -1;
    out->name = blobmsg_get_string(tb[N_NAME]);
    if (blobmsg_parse(config_policy, C_MAX, cfg, blobmsg_data(tb[N_CONFIG]),
                      blobmsg_data_len(tb[N_CONFIG])) < 0 ||
        !cfg[C_MTU] || !cfg[C_ENABLED] || !cfg[C_ADDRS])
        return -1;
    out->mtu = blobmsg_get_u32(cfg[C_MTU]);
    out->enabled = blobmsg_get_bool(cfg[C_ENABLED]);
    out->n_addrs = 0;
    blobmsg_for_each_attr(cur, cfg[C_ADDRS], rem) {
        if (blobmsg_type(cur) != BLOBMSG_TYPE_STRING || out->n_addrs == 4)
            return -1;
        out->addrs[out->n_addrs++] = blobmsg_get_string(cur);
    }
    return 0;
}
