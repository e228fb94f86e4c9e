/* Named, typed fields: building, validating and parsing them against policies. */
#include "libubox/blobmsg.h"

/* The blob type whose length rules a blobmsg type's value follows. */
static const int value_rules[] = {
    [BLOBMSG_TYPE_UNSPEC] = BLOB_ATTR_UNSPEC, [BLOBMSG_TYPE_ARRAY] = BLOB_ATTR_NESTED,
    [BLOBMSG_TYPE_TABLE] = BLOB_ATTR_NESTED,  [BLOBMSG_TYPE_STRING] = BLOB_ATTR_STRING,
    [BLOBMSG_TYPE_INT64] = BLOB_ATTR_INT64,   [BLOBMSG_TYPE_INT32] = BLOB_ATTR_INT32,
    [BLOBMSG_TYPE_INT16] = BLOB_ATTR_INT16,   [BLOBMSG_TYPE_INT8] = BLOB_ATTR_INT8,
    [BLOBMSG_TYPE_DOUBLE] = BLOB_ATTR_DOUBLE,
};

static struct blobmsg_hdr* name_header(const struct blob_attr* attr) {
    return (struct blobmsg_hdr*)blob_data(attr);
}

bool blobmsg_check_attr_len(const struct blob_attr* attr, bool name, size_t len) {
    size_t payload;
    size_t hdrlen = 0;
    unsigned int type;

    if (!attr || len < sizeof(struct blob_attr) || blob_raw_len(attr) < sizeof(struct blob_attr) ||
        blob_raw_len(attr) > len)
        return false;
    payload = blob_len(attr);

    if (blob_is_extended(attr)) {
        uint16_t namelen;

        if (payload < sizeof(struct blobmsg_hdr))
            return false;
        namelen = blobmsg_namelen(name_header(attr));
        if (name && !namelen)
            return false;
        hdrlen = (size_t)blobmsg_hdrlen(namelen);
        if (payload < hdrlen || name_header(attr)->name[namelen] != 0)
            return false;
    } else if (name) {
        return false;
    }

    type = blob_id(attr);
    if (type > BLOBMSG_TYPE_LAST)
        return false;
    return blob_check_type((const char*)blob_data(attr) + hdrlen, (unsigned int)(payload - hdrlen),
                           value_rules[type]);
}

bool blobmsg_check_attr(const struct blob_attr* attr, bool name) {
    return attr && blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const struct blob_attr* attr, int type, size_t blob_len) {
    struct blob_attr* pos;
    size_t rem;
    bool named;
    int count = 0;

    if (type < 0 || type > BLOBMSG_TYPE_LAST || !blobmsg_check_attr_len(attr, false, blob_len))
        return -1;
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_TABLE:
        named = true;
        break;
    case BLOBMSG_TYPE_ARRAY:
        named = false;
        break;
    default:
        return -1;
    }

    blobmsg_for_each_attr(pos, attr, rem) {
        if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(pos) != type)
            return -1;
        if (!blobmsg_check_attr_len(pos, named, rem))
            return -1;
        count++;
    }
    return count;
}

int blobmsg_check_array(const struct blob_attr* attr, int type) {
    return attr ? blobmsg_check_array_len(attr, type, blob_raw_len(attr)) : -1;
}

bool blobmsg_check_attr_list_len(const struct blob_attr* attr, int type, size_t len) {
    return blobmsg_check_array_len(attr, type, len) >= 0;
}

bool blobmsg_check_attr_list(const struct blob_attr* attr, int type) {
    return blobmsg_check_array(attr, type) >= 0;
}

static bool type_matches(enum blobmsg_type wanted, int type) {
    if (wanted == BLOBMSG_TYPE_UNSPEC)
        return true;
    if (wanted == BLOBMSG_CAST_INT64)
        return type == BLOBMSG_TYPE_INT64 || type == BLOBMSG_TYPE_INT32 ||
               type == BLOBMSG_TYPE_INT16 || type == BLOBMSG_TYPE_INT8;
    return (int)wanted == type;
}

/* Fills every still-empty entry whose name and type the (valid, named) attribute matches. */
static void match_policy(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb,
                         struct blob_attr* attr) {
    const struct blobmsg_hdr* hdr = name_header(attr);
    size_t namelen = blobmsg_namelen(hdr);

    for (int i = 0; i < policy_len; i++) {
        if (tb[i] || !policy[i].name || !type_matches(policy[i].type, blobmsg_type(attr)))
            continue;
        if (strlen(policy[i].name) == namelen && !memcmp(policy[i].name, hdr->name, namelen))
            tb[i] = attr;
    }
}

int blobmsg_parse(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb,
                  void* data, unsigned int len) {
    struct blob_attr* pos;
    size_t rem = len;

    if (policy_len > 0)
        memset(tb, 0, sizeof(*tb) * (size_t)policy_len);
    if (!data || !len)
        return -EINVAL;

    __blob_for_each_attr(pos, data, rem) {
        if (!blobmsg_check_attr_len(pos, false, rem))
            return -1;
        if (blob_is_extended(pos))
            match_policy(policy, policy_len, tb, pos);
    }
    return 0;
}

/* Positional: the i-th entry takes the next attribute of its type, names are ignored. */
int blobmsg_parse_array(const struct blobmsg_policy* policy, int policy_len, struct blob_attr** tb,
                        void* data, unsigned int len) {
    struct blob_attr* pos;
    size_t rem = data ? len : 0;
    int i = 0;

    if (policy_len > 0)
        memset(tb, 0, sizeof(*tb) * (size_t)policy_len);

    __blob_for_each_attr(pos, data, rem) {
        if (i >= policy_len)
            break;
        if (policy[i].type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(pos) != (int)policy[i].type)
            continue;
        if (!blobmsg_check_attr_len(pos, false, rem))
            return -1;
        tb[i++] = pos;
    }
    return 0;
}

/* Appends a field with its name header; `*value` receives where its `len` value bytes go. */
static struct blob_attr* blobmsg_new(struct blob_buf* buf, int type, const char* name,
                                     unsigned int len, void** value) {
    struct blob_attr* attr;
    struct blobmsg_hdr* hdr;
    size_t namelen;
    size_t hdrlen;

    if (!name)
        name = "";
    namelen = strlen(name);
    if (namelen > UINT16_MAX || len > BLOB_ATTR_LEN_MASK)
        return NULL;
    hdrlen = (size_t)blobmsg_hdrlen((unsigned int)namelen);
    attr = blob_new(buf, type, (int)(hdrlen + len));
    if (!attr)
        return NULL;

    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    hdr = name_header(attr);
    hdr->namelen = cpu_to_be16((uint16_t)namelen);
    memcpy(hdr->name, name, namelen);
    memset(hdr->name + namelen, 0, hdrlen - sizeof(*hdr) - namelen);
    *value = (char*)hdr + hdrlen;
    return attr;
}

int blobmsg_add_field(struct blob_buf* buf, int type, const char* name, const void* data,
                      unsigned int len) {
    void* value;

    if (!blobmsg_new(buf, type, name, len, &value))
        return -1;
    if (data && len)
        memcpy(value, data, len);
    return 0;
}

/* Like blob_nest_start, with the cookie encoded the same way. The name header is taken
 * back out of the parent's length because blob_nest_end adds the whole payload. */
void* blobmsg_open_nested(struct blob_buf* buf, const char* name, bool array) {
    struct blob_attr* attr;
    struct blob_attr* parent;
    size_t offset;
    void* value;

    if (!buf->head)
        return NULL;
    offset = (size_t)((char*)buf->head - (char*)buf->buf);
    attr = blobmsg_new(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0, &value);
    if (!attr)
        return NULL;
    parent = (struct blob_attr*)((char*)buf->buf + offset);
    blob_set_raw_len(parent, (unsigned int)(blob_raw_len(parent) - blob_len(attr)));
    buf->head = attr;
    return (void*)(uintptr_t)(offset + BLOB_COOKIE);
}

/* A string buffer is a STRING field written past the head's end and not yet counted in the
 * head's length, so the caller can fill it in place before its final length is known. */
static struct blob_attr* string_buffer(struct blob_buf* buf) {
    struct blob_attr* attr;
    size_t avail;

    if (!buf->head)
        return NULL;
    attr = blob_next(buf->head);
    avail = (size_t)buf->buflen - (size_t)((char*)attr - (char*)buf->buf);
    if (avail < sizeof(struct blob_attr) + sizeof(struct blobmsg_hdr) ||
        blob_pad_len(attr) > avail ||
        blob_raw_len(attr) <
            sizeof(struct blob_attr) + (size_t)blobmsg_hdrlen(blobmsg_namelen(name_header(attr))))
        return NULL;
    return attr;
}

void* blobmsg_alloc_string_buffer(struct blob_buf* buf, const char* name, unsigned int maxlen) {
    unsigned int head_len;
    void* value;

    if (!buf->head)
        return NULL;
    head_len = (unsigned int)blob_raw_len(buf->head);
    if (!blobmsg_new(buf, BLOBMSG_TYPE_STRING, name, maxlen, &value))
        return NULL;
    blob_set_raw_len(buf->head, head_len);
    return value;
}

/* `maxlen` is the new capacity of the value, terminating NUL included. */
void* blobmsg_realloc_string_buffer(struct blob_buf* buf, unsigned int maxlen) {
    struct blob_attr* attr = string_buffer(buf);
    size_t offset;
    size_t raw;
    size_t end;

    if (!attr)
        return NULL;
    offset = (size_t)((char*)attr - (char*)buf->buf);
    raw = blob_raw_len(attr) - blobmsg_data_len(attr) + maxlen;
    end = offset + ((raw + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1));
    if (end > BLOB_ATTR_LEN_MASK)
        return NULL;
    if (end > (size_t)buf->buflen && !blob_buf_grow(buf, (int)(end - (size_t)buf->buflen)))
        return NULL;
    attr = (struct blob_attr*)((char*)buf->buf + offset);
    blob_set_raw_len(attr, (unsigned int)raw);
    return blobmsg_data(attr);
}

/* Counts the string buffer into the head, cut to its NUL-terminated content. */
void blobmsg_add_string_buffer(struct blob_buf* buf) {
    struct blob_attr* attr = string_buffer(buf);
    size_t capacity;
    size_t len;

    if (!attr)
        return;
    capacity = blobmsg_data_len(attr);
    len = strnlen(blobmsg_data(attr), capacity);
    if (len < capacity)
        len++;
    blob_set_raw_len(attr, (unsigned int)(blob_raw_len(attr) - capacity + len));
    blob_fill_pad(attr);
    blob_set_raw_len(buf->head, (unsigned int)(blob_raw_len(buf->head) + blob_pad_len(attr)));
}

int blobmsg_vprintf(struct blob_buf* buf, const char* name, const char* format, va_list arg) {
    va_list measure;
    int len;
    char* value;

    va_copy(measure, arg);
    len = vsnprintf(NULL, 0, format, measure);
    va_end(measure);
    if (len < 0)
        return -1;

    value = blobmsg_alloc_string_buffer(buf, name, (unsigned int)len + 1);
    if (!value)
        return -1;
    len = vsnprintf(value, (size_t)len + 1, format, arg);
    if (len < 0)
        return -1;
    blobmsg_add_string_buffer(buf);
    return len;
}

int blobmsg_printf(struct blob_buf* buf, const char* name, const char* format, ...) {
    va_list arg;
    int len;

    va_start(arg, format);
    len = blobmsg_vprintf(buf, name, format, arg);
    va_end(arg);
    return len;
}
