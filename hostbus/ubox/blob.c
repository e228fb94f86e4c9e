/* Building blob attributes in a growable buffer, and checking them against policies. */
#include "libubox/blob.h"

#define BLOB_GROW_STEP 256

static size_t attr_offset(const struct blob_buf* buf, const struct blob_attr* attr) {
    return (size_t)((const char*)attr - (const char*)buf->buf);
}

static struct blob_attr* attr_at(const struct blob_buf* buf, size_t offset) {
    return (struct blob_attr*)((char*)buf->buf + offset);
}

static size_t pad_len(size_t len) {
    return (len + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static bool grow_default(struct blob_buf* buf, int minlen) {
    size_t delta = ((size_t)minlen / BLOB_GROW_STEP + 1) * BLOB_GROW_STEP;
    size_t new_len = (size_t)buf->buflen + delta;
    char* mem;

    if (new_len > BLOB_ATTR_LEN_MASK)
        return false;
    mem = realloc(buf->buf, new_len);
    if (!mem)
        return false;
    memset(mem + buf->buflen, 0, delta);
    buf->buf = mem;
    buf->buflen = (int)new_len;
    return true;
}

bool blob_buf_grow(struct blob_buf* buf, int required) {
    size_t head = buf->head ? attr_offset(buf, buf->head) : 0;

    if (required < 0 || !buf->grow || !buf->grow(buf, required))
        return false;
    buf->head = attr_at(buf, head);
    return true;
}

static void blob_init(struct blob_attr* attr, int id, size_t len) {
    uint32_t word = ((uint32_t)id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;

    attr->id_len = cpu_to_be32(word | (uint32_t)(len & BLOB_ATTR_LEN_MASK));
}

/* Writes a header at `offset`, growing the buffer to hold the padded attribute. */
static struct blob_attr* blob_add(struct blob_buf* buf, size_t offset, int id, int payload) {
    size_t raw = sizeof(struct blob_attr) + (size_t)payload;
    size_t end = offset + pad_len(raw);
    struct blob_attr* attr;

    if (payload < 0 || end > BLOB_ATTR_LEN_MASK)
        return NULL;
    if (end > (size_t)buf->buflen && !blob_buf_grow(buf, (int)(end - (size_t)buf->buflen)))
        return NULL;
    attr = attr_at(buf, offset);
    blob_init(attr, id, raw);
    blob_fill_pad(attr);
    return attr;
}

int blob_buf_init(struct blob_buf* buf, int id) {
    if (!buf->grow)
        buf->grow = grow_default;
    buf->head = buf->buf;
    if (!blob_add(buf, 0, id, 0))
        return -ENOMEM;
    return 0;
}

void blob_buf_free(struct blob_buf* buf) {
    free(buf->buf);
    buf->buf = NULL;
    buf->head = NULL;
    buf->buflen = 0;
}

void blob_fill_pad(struct blob_attr* attr) {
    size_t raw = blob_raw_len(attr);

    memset((char*)attr + raw, 0, pad_len(raw) - raw);
}

void blob_set_raw_len(struct blob_attr* attr, unsigned int len) {
    uint32_t word = be32_to_cpu(attr->id_len) & ~(uint32_t)BLOB_ATTR_LEN_MASK;

    attr->id_len = cpu_to_be32(word | (len & BLOB_ATTR_LEN_MASK));
}

struct blob_attr* blob_new(struct blob_buf* buf, int id, int payload) {
    struct blob_attr* attr;

    if (!buf->head)
        return NULL;
    attr = blob_add(buf, attr_offset(buf, blob_next(buf->head)), id, payload);
    if (!attr)
        return NULL;
    blob_set_raw_len(buf->head, (unsigned int)(blob_raw_len(buf->head) + blob_pad_len(attr)));
    return attr;
}

struct blob_attr* blob_put(struct blob_buf* buf, int id, const void* ptr, unsigned int len) {
    struct blob_attr* attr;

    if (len > BLOB_ATTR_LEN_MASK)
        return NULL;
    attr = blob_new(buf, id, (int)len);
    if (attr && ptr)
        memcpy(blob_data(attr), ptr, len);
    return attr;
}

struct blob_attr* blob_put_raw(struct blob_buf* buf, const void* ptr, unsigned int len) {
    struct blob_attr* attr;

    if (!ptr || len < sizeof(struct blob_attr) || len > BLOB_ATTR_LEN_MASK)
        return NULL;
    attr = blob_new(buf, 0, (int)(len - sizeof(struct blob_attr)));
    if (attr)
        memcpy(attr, ptr, len);
    return attr;
}

/* Cookies are offsets, not pointers, so they survive the buffer moving; the bias keeps the
 * cookie of the top level (offset 0) apart from NULL, which means failure. */
void* blob_nest_start(struct blob_buf* buf, int id) {
    size_t parent;
    struct blob_attr* attr;

    if (!buf->head)
        return NULL;
    parent = attr_offset(buf, buf->head);
    attr = blob_new(buf, id, 0);
    if (!attr)
        return NULL;
    buf->head = attr;
    return (void*)(uintptr_t)(parent + BLOB_COOKIE);
}

void blob_nest_end(struct blob_buf* buf, void* cookie) {
    struct blob_attr* parent;

    if (!cookie)
        return;
    parent = attr_at(buf, (uintptr_t)cookie - BLOB_COOKIE);
    blob_set_raw_len(parent, (unsigned int)(blob_raw_len(parent) + blob_len(buf->head)));
    buf->head = parent;
}

bool blob_attr_equal(const struct blob_attr* a1, const struct blob_attr* a2) {
    if (!a1 || !a2)
        return a1 == a2;
    return blob_pad_len(a1) == blob_pad_len(a2) && !memcmp(a1, a2, blob_pad_len(a1));
}

struct blob_attr* blob_memdup(struct blob_attr* attr) {
    struct blob_attr* copy;

    if (!attr)
        return NULL;
    copy = malloc(blob_pad_len(attr));
    if (copy)
        memcpy(copy, attr, blob_pad_len(attr));
    return copy;
}

bool blob_check_type(const void* ptr, unsigned int len, int type) {
    switch (type) {
    case BLOB_ATTR_UNSPEC:
    case BLOB_ATTR_NESTED:
    case BLOB_ATTR_BINARY:
        return true;
    case BLOB_ATTR_STRING:
        return len >= 1 && ((const char*)ptr)[len - 1] == '\0';
    case BLOB_ATTR_INT8:
        return len == 1;
    case BLOB_ATTR_INT16:
        return len == 2;
    case BLOB_ATTR_INT32:
        return len == 4;
    case BLOB_ATTR_INT64:
        return len == 8;
    case BLOB_ATTR_DOUBLE:
        return len >= 8;
    default:
        return false;
    }
}

static bool attr_fits(const struct blob_attr_info* info, struct blob_attr* attr) {
    size_t raw = blob_raw_len(attr);

    if (!blob_check_type(blob_data(attr), (unsigned int)blob_len(attr), (int)info->type))
        return false;
    if (info->minlen && raw < info->minlen)
        return false;
    if (info->maxlen && raw > info->maxlen)
        return false;
    return !info->validate || info->validate(info, attr);
}

/* Stores `attr` in `data` unless filtered out; returns 1 when its id was not seen before.
 * A later attribute with the same id replaces an earlier one. Iteration does reach a child
 * whose length is below its own header (it pads to 4); its payload length would wrap, so
 * it is dropped. */
static int parse_one(struct blob_attr* attr, struct blob_attr** data,
                     const struct blob_attr_info* info, int max) {
    unsigned int id = blob_id(attr);
    int added;

    if ((int)id >= max || blob_raw_len(attr) < sizeof(struct blob_attr) ||
        (info && !attr_fits(&info[id], attr)))
        return 0;
    added = !data[id];
    data[id] = attr;
    return added;
}

int blob_parse(struct blob_attr* attr, struct blob_attr** data, const struct blob_attr_info* info,
               int max) {
    struct blob_attr* pos;
    size_t rem;
    int found = 0;

    if (max > 0)
        memset(data, 0, sizeof(*data) * (size_t)max);
    /* A header shorter than itself would make the payload length wrap around. */
    if (attr && blob_raw_len(attr) < sizeof(struct blob_attr))
        return 0;
    blob_for_each_attr(pos, attr, rem) {
        found += parse_one(pos, data, info, max);
    }
    return found;
}

int blob_parse_untrusted(struct blob_attr* attr, size_t attr_len, struct blob_attr** data,
                         const struct blob_attr_info* info, int max) {
    struct blob_attr* pos;
    size_t rem;
    int found = 0;

    if (!attr || attr_len < sizeof(struct blob_attr) || blob_raw_len(attr) > attr_len ||
        blob_raw_len(attr) < sizeof(struct blob_attr))
        return 0;
    if (max > 0)
        memset(data, 0, sizeof(*data) * (size_t)max);
    blob_for_each_attr_len(pos, attr, attr_len, rem) {
        found += parse_one(pos, data, info, max);
    }
    return found;
}
