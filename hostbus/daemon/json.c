/* JSON text to blobmsg fields, for the ACL files. Objects become tables, arrays arrays,
 * integers INT32 (INT64 beyond, clamped), other numbers DOUBLE, booleans INT8, null an empty
 * UNSPEC; a repeated key keeps its last value at the place of its first. The grammar is
 * plain JSON: stricter than the device's reader (no comments, no single quotes, nothing after
 * the object), so a file it takes may be refused here, never the other way round. */
#include <stdlib.h>
#include <string.h>

#include <libubox/blobmsg.h>

#include "ubusd.h"

/* Containers nested deeper than the device's reader takes (the top object included). */
#define JSON_MAX_DEPTH 31

struct json_reader {
    const char* pos;
    const char* end;
    struct blob_buf* out;
    char* text; /* the string or number being read, NUL-terminated */
    size_t len, cap;
};

static bool read_value(struct json_reader* r, const char* name, int depth);

static bool text_add(struct json_reader* r, const void* bytes, size_t n) {
    if (r->len + n + 1 > r->cap) {
        size_t cap = r->cap ? r->cap : 64;
        char* text;

        while (cap < r->len + n + 1)
            cap *= 2;
        text = realloc(r->text, cap);
        if (!text)
            return false;
        r->text = text;
        r->cap = cap;
    }
    memcpy(r->text + r->len, bytes, n);
    r->len += n;
    r->text[r->len] = '\0';
    return true;
}

static void skip_space(struct json_reader* r) {
    while (r->pos < r->end &&
           (*r->pos == ' ' || *r->pos == '\t' || *r->pos == '\n' || *r->pos == '\r'))
        r->pos++;
}

static bool next_is(struct json_reader* r, char c) {
    skip_space(r);
    if (r->pos >= r->end || *r->pos != c)
        return false;
    r->pos++;
    return true;
}

static bool is_digit(const struct json_reader* r) {
    return r->pos < r->end && *r->pos >= '0' && *r->pos <= '9';
}

/* Four hex digits at `p`, or -1. */
static long hex4(const struct json_reader* r, const char* p) {
    long v = 0;

    if (r->end - p < 4)
        return -1;
    for (int i = 0; i < 4; i++) {
        char c = p[i];

        v <<= 4;
        if (c >= '0' && c <= '9')
            v |= c - '0';
        else if (c >= 'a' && c <= 'f')
            v |= c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v |= c - 'A' + 10;
        else
            return -1;
    }
    return v;
}

static bool add_utf8(struct json_reader* r, unsigned long cp) {
    unsigned char b[4];
    size_t n;

    if (cp < 0x80) {
        b[0] = (unsigned char)cp;
        n = 1;
    } else if (cp < 0x800) {
        b[0] = (unsigned char)(0xc0 | cp >> 6);
        b[1] = (unsigned char)(0x80 | (cp & 0x3f));
        n = 2;
    } else if (cp < 0x10000) {
        b[0] = (unsigned char)(0xe0 | cp >> 12);
        b[1] = (unsigned char)(0x80 | (cp >> 6 & 0x3f));
        b[2] = (unsigned char)(0x80 | (cp & 0x3f));
        n = 3;
    } else {
        b[0] = (unsigned char)(0xf0 | cp >> 18);
        b[1] = (unsigned char)(0x80 | (cp >> 12 & 0x3f));
        b[2] = (unsigned char)(0x80 | (cp >> 6 & 0x3f));
        b[3] = (unsigned char)(0x80 | (cp & 0x3f));
        n = 4;
    }
    return text_add(r, b, n);
}

/* After "\u": a pair of surrogates makes one character, a lone one U+FFFD. */
static bool read_unicode(struct json_reader* r) {
    long cp = hex4(r, r->pos), low;

    if (cp < 0)
        return false;
    r->pos += 4;
    if (cp >= 0xd800 && cp < 0xdc00 && r->end - r->pos >= 6 && r->pos[0] == '\\' &&
        r->pos[1] == 'u' && (low = hex4(r, r->pos + 2)) >= 0xdc00 && low < 0xe000) {
        cp = 0x10000 + ((cp - 0xd800) << 10) + (low - 0xdc00);
        r->pos += 6;
    } else if (cp >= 0xd800 && cp < 0xe000) {
        cp = 0xfffd;
    }
    return add_utf8(r, (unsigned long)cp);
}

/* After the opening quote, into r->text. A "\u0000" ends the text there, as blobmsg's
 * strings do. */
static bool read_string(struct json_reader* r) {
    static const char plain[] = "\"\\/bfnrt";
    static const char meant[] = "\"\\/\b\f\n\r\t";

    r->len = 0;
    if (!text_add(r, "", 0))
        return false;
    while (r->pos < r->end) {
        unsigned char c = (unsigned char)*r->pos++;
        const char* esc;

        if (c == '"')
            return true;
        if (c < 0x20)
            return false;
        if (c != '\\') {
            if (!text_add(r, &c, 1))
                return false;
            continue;
        }
        if (r->pos >= r->end)
            return false;
        c = (unsigned char)*r->pos++;
        if (c == 'u') {
            if (!read_unicode(r))
                return false;
            continue;
        }
        esc = c ? strchr(plain, c) : NULL;
        if (!esc || !text_add(r, &meant[esc - plain], 1))
            return false;
    }
    return false;
}

static bool read_digits(struct json_reader* r) {
    if (!is_digit(r))
        return false;
    while (is_digit(r))
        r->pos++;
    return true;
}

static bool read_number(struct json_reader* r, const char* name) {
    const char* start = r->pos;
    bool integral = true;
    long long v;

    if (r->pos < r->end && *r->pos == '-')
        r->pos++;
    if (is_digit(r) && *r->pos == '0')
        r->pos++;
    else if (!read_digits(r))
        return false;
    if (r->pos < r->end && *r->pos == '.') {
        integral = false;
        r->pos++;
        if (!read_digits(r))
            return false;
    }
    if (r->pos < r->end && (*r->pos == 'e' || *r->pos == 'E')) {
        integral = false;
        r->pos++;
        if (r->pos < r->end && (*r->pos == '+' || *r->pos == '-'))
            r->pos++;
        if (!read_digits(r))
            return false;
    }
    r->len = 0;
    if (!text_add(r, start, (size_t)(r->pos - start)))
        return false;
    if (!integral)
        return blobmsg_add_double(r->out, name, strtod(r->text, NULL)) == 0;
    /* Out of range saturates, as with the device's reader. */
    v = strtoll(r->text, NULL, 10);
    if (v >= INT32_MIN && v <= INT32_MAX)
        return blobmsg_add_u32(r->out, name, (uint32_t)(int32_t)v) == 0;
    return blobmsg_add_u64(r->out, name, (uint64_t)v) == 0;
}

static bool read_word(struct json_reader* r, const char* word) {
    size_t n = strlen(word);

    if ((size_t)(r->end - r->pos) < n || memcmp(r->pos, word, n))
        return false;
    r->pos += n;
    return true;
}

/* A member of an object (`named`) or an element of an array. */
static bool read_member(struct json_reader* r, bool named, int depth) {
    char* key;
    bool ok;

    if (!named)
        return read_value(r, "", depth);
    if (!next_is(r, '"') || !read_string(r))
        return false;
    key = strdup(r->text);
    if (!key)
        return false;
    ok = next_is(r, ':') && read_value(r, key, depth);
    free(key);
    return ok;
}

/* After the opening bracket, up to and with the closing one. */
static bool read_members(struct json_reader* r, bool named, int depth) {
    char close = named ? '}' : ']';

    if (depth > JSON_MAX_DEPTH)
        return false;
    if (next_is(r, close))
        return true;
    do {
        if (!read_member(r, named, depth))
            return false;
    } while (next_is(r, ','));
    return next_is(r, close);
}

static bool read_value(struct json_reader* r, const char* name, int depth) {
    void* cookie;
    bool table;

    skip_space(r);
    if (r->pos >= r->end)
        return false;
    switch (*r->pos) {
    case '{':
    case '[':
        table = *r->pos++ == '{';
        cookie = blobmsg_open_nested(r->out, name, !table);
        if (!cookie || !read_members(r, table, depth + 1))
            return false;
        blob_nest_end(r->out, cookie);
        return true;
    case '"':
        r->pos++;
        return read_string(r) && blobmsg_add_string(r->out, name, r->text) == 0;
    case 't':
        return read_word(r, "true") && blobmsg_add_u8(r->out, name, 1) == 0;
    case 'f':
        return read_word(r, "false") && blobmsg_add_u8(r->out, name, 0) == 0;
    case 'n':
        return read_word(r, "null") &&
               blobmsg_add_field(r->out, BLOBMSG_TYPE_UNSPEC, name, NULL, 0) == 0;
    default:
        return read_number(r, name);
    }
}

static bool copy_fields(struct blob_buf* out, struct blob_attr* data, size_t len, bool named);

static bool copy_field(struct blob_buf* out, const char* name, struct blob_attr* value) {
    int type = blobmsg_type(value);
    void* cookie;

    if (type != BLOBMSG_TYPE_TABLE && type != BLOBMSG_TYPE_ARRAY)
        return blobmsg_add_field(out, type, name, blobmsg_data(value),
                                 (unsigned int)blobmsg_data_len(value)) == 0;
    cookie = blobmsg_open_nested(out, name, type == BLOBMSG_TYPE_ARRAY);
    if (!cookie ||
        !copy_fields(out, blobmsg_data(value), blobmsg_data_len(value), type == BLOBMSG_TYPE_TABLE))
        return false;
    blob_nest_end(out, cookie);
    return true;
}

/* Copies fields, each key of a table once: with its last value, where it first came. */
static bool copy_fields(struct blob_buf* out, struct blob_attr* data, size_t len, bool named) {
    struct blob_attr *cur, *other;
    size_t rem = len, rem2;

    __blob_for_each_attr(cur, data, rem) {
        struct blob_attr *first = NULL, *value = cur;

        if (named) {
            rem2 = len;
            __blob_for_each_attr(other, data, rem2) {
                if (strcmp(blobmsg_name(other), blobmsg_name(cur)))
                    continue;
                if (!first)
                    first = other;
                value = other;
            }
            if (first != cur)
                continue;
        }
        if (!copy_field(out, blobmsg_name(cur), value))
            return false;
    }
    return true;
}

bool json_to_blobmsg(struct blob_buf* out, const char* text, size_t len) {
    struct blob_buf raw = {0};
    struct json_reader r = {.pos = text, .end = text + len, .out = &raw};
    bool ok = blobmsg_buf_init(&raw) == 0 && next_is(&r, '{') && read_members(&r, true, 1);

    skip_space(&r);
    ok = ok && r.pos == r.end && blobmsg_buf_init(out) == 0 &&
         copy_fields(out, blob_data(raw.head), blob_len(raw.head), true);
    free(r.text);
    blob_buf_free(&raw);
    return ok;
}
