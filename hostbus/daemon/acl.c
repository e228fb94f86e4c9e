/* Access rules: the ACL directory's *.json files, read at startup and on SIGHUP, and the
 * checks made with them for every client but root. Rules only grant; with none, a client
 * other than root may do nothing that needs a right. */
#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <libubox/blobmsg.h>

#include "ubusd.h"

enum { RULE_USER = __ACL_RIGHT_MAX, RULE_GROUP, RULE_ACCESS, __RULE_MAX };

/* A key of the wrong type counts as absent. */
static const struct blobmsg_policy rule_policy[__RULE_MAX] = {
    [ACL_PUBLISH] = {.name = "publish", .type = BLOBMSG_TYPE_ARRAY},
    [ACL_SUBSCRIBE] = {.name = "subscribe", .type = BLOBMSG_TYPE_ARRAY},
    [ACL_LISTEN] = {.name = "listen", .type = BLOBMSG_TYPE_ARRAY},
    [ACL_SEND] = {.name = "send", .type = BLOBMSG_TYPE_ARRAY},
    [RULE_USER] = {.name = "user", .type = BLOBMSG_TYPE_STRING},
    [RULE_GROUP] = {.name = "group", .type = BLOBMSG_TYPE_STRING},
    [RULE_ACCESS] = {.name = "access", .type = BLOBMSG_TYPE_TABLE},
};

enum { ENTRY_METHODS, ENTRY_ACL, __ENTRY_MAX };

static const struct blobmsg_policy entry_policy[__ENTRY_MAX] = {
    [ENTRY_METHODS] = {.name = "methods", .type = BLOBMSG_TYPE_ARRAY},
    [ENTRY_ACL] = {.name = "acl", .type = BLOBMSG_TYPE_TABLE},
};

/* One usable file. */
struct acl_rule {
    struct list_head entry;
    bool by_group; /* no "user": the rule is for members of a group */
    uid_t uid;
    gid_t gid;
    struct blob_attr* fields;         /* the file's top-level fields */
    struct blob_attr* tb[__RULE_MAX]; /* into `fields` */
};

static LIST_HEAD(rules); /* files in the order they were read */
static uint32_t acl_seq; /* counts the loads that found files */

/* A trailing '*' makes a prefix of the rest; anything else must be equal. Empty strings
 * match nothing. */
static bool pattern_matches(const char* pattern, const char* s, size_t len) {
    size_t plen = strlen(pattern);

    if (!plen)
        return false;
    if (pattern[plen - 1] == '*')
        return plen - 1 <= len && !memcmp(pattern, s, plen - 1);
    return plen == len && !memcmp(pattern, s, len);
}

/* Method lists know only exact names and "*". */
static bool list_grants(struct blob_attr* list, const char* s, size_t len, bool methods) {
    struct blob_attr* cur;
    size_t rem;

    if (!list)
        return false;
    blobmsg_for_each_attr(cur, list, rem) {
        const char* item;

        if (blobmsg_type(cur) != BLOBMSG_TYPE_STRING)
            continue;
        item = blobmsg_get_string(cur);
        if (methods ? item[0] && (!strcmp(item, "*") || !strcmp(item, s))
                    : pattern_matches(item, s, len))
            return true;
    }
    return false;
}

static bool rule_applies(const struct acl_rule* rule, const struct client* cl) {
    if (!rule->by_group)
        return cl->uid == rule->uid;
    if (cl->gid == rule->gid)
        return true;
    for (int i = 0; i < cl->n_groups; i++) {
        if (cl->groups[i] == rule->gid)
            return true;
    }
    return false;
}

/* An `access` entry for `path`: its fields in `tb`. */
static bool entry_for(struct blob_attr* entry, const char* path, struct blob_attr** tb) {
    if (blobmsg_type(entry) != BLOBMSG_TYPE_TABLE ||
        !pattern_matches(blobmsg_name(entry), path, strlen(path)))
        return false;
    blobmsg_parse(entry_policy, __ENTRY_MAX, tb, blobmsg_data(entry),
                  (unsigned int)blobmsg_data_len(entry));
    return true;
}

bool acl_allows(const struct client* cl, enum acl_right right, const char* s) {
    size_t len = strlen(s);
    struct acl_rule* rule;

    if (cl->privileged)
        return true;
    /* A listener's prefix is checked without its '*'. */
    if (right == ACL_LISTEN && len && s[len - 1] == '*')
        len--;
    list_for_each_entry(rule, &rules, entry) {
        if (rule_applies(rule, cl) && list_grants(rule->tb[right], s, len, false))
            return true;
    }
    return false;
}

bool acl_allows_call(const struct client* cl, const char* path, const char* method) {
    struct blob_attr* tb[__ENTRY_MAX];
    struct acl_rule* rule;
    struct blob_attr* cur;
    size_t rem;

    if (cl->privileged)
        return true;
    list_for_each_entry(rule, &rules, entry) {
        if (!rule->tb[RULE_ACCESS] || !rule_applies(rule, cl))
            continue;
        blobmsg_for_each_attr(cur, rule->tb[RULE_ACCESS], rem) {
            if (entry_for(cur, path, tb) &&
                list_grants(tb[ENTRY_METHODS], method, strlen(method), true))
                return true;
        }
    }
    return false;
}

/* Every `access` entry with an `acl` table that matches an object of the client's, whoever
 * the entry is for. */
void acl_put_query(struct blob_buf* b, const struct client* cl) {
    struct blob_attr* tb[__ENTRY_MAX];
    struct acl_rule* rule;
    struct object* obj;
    struct blob_attr* cur;
    void* list;
    size_t rem;

    blobmsg_add_u32(b, "seq", acl_seq);
    list = blobmsg_open_array(b, "acl");
    list_for_each_entry(obj, &cl->objects, owner_entry) {
        if (!obj->path)
            continue;
        list_for_each_entry(rule, &rules, entry) {
            if (!rule->tb[RULE_ACCESS])
                continue;
            blobmsg_for_each_attr(cur, rule->tb[RULE_ACCESS], rem) {
                void* item;

                if (!entry_for(cur, obj->path, tb) || !tb[ENTRY_ACL])
                    continue;
                item = blobmsg_open_table(b, NULL);
                blobmsg_add_string(b, "obj", obj->path);
                blobmsg_add_string(
                    b, rule->by_group ? "group" : "user",
                    blobmsg_get_string(rule->tb[rule->by_group ? RULE_GROUP : RULE_USER]));
                blobmsg_add_field(b, BLOBMSG_TYPE_TABLE, "acl", blobmsg_data(tb[ENTRY_ACL]),
                                  (unsigned int)blobmsg_data_len(tb[ENTRY_ACL]));
                blobmsg_close_table(b, item);
            }
        }
    }
    blobmsg_close_array(b, list);
}

int acl_read_groups(pid_t pid, gid_t* groups, int max) {
    char path[32], *line = NULL;
    size_t cap = 0;
    int n = 0;
    FILE* f;

    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    f = fopen(path, "re");
    if (!f)
        return 0;
    while (getline(&line, &cap, f) > 0) {
        char *p = line + 7, *end;

        if (strncmp(line, "Groups:", 7))
            continue;
        while (n < max) {
            unsigned long gid = strtoul(p, &end, 10);

            if (end == p)
                break;
            groups[n++] = (gid_t)gid;
            p = end;
        }
        break;
    }
    free(line);
    fclose(f);
    return n;
}

static char* read_all(int fd, size_t* len) {
    size_t cap = 4096;
    char* text = malloc(cap);

    *len = 0;
    while (text) {
        ssize_t n;

        if (*len == cap) {
            char* more = realloc(text, cap * 2);

            if (!more)
                break;
            text = more;
            cap *= 2;
        }
        n = read(fd, text + *len, cap - *len);
        if (n == 0)
            return text;
        if (n < 0)
            break;
        *len += (size_t)n;
    }
    free(text);
    return NULL;
}

/* Only root may write the rules: a file anyone else owns or may change, or anyone may
 * execute, is not used. */
static bool file_usable(const struct stat* st) {
    return S_ISREG(st->st_mode) && st->st_uid == 0 && st->st_gid == 0 &&
           !(st->st_mode & (S_IWGRP | S_IWOTH | S_IXOTH));
}

static bool parse_file(const char* path, struct blob_buf* b) {
    /* Not blocking on a FIFO that happens to bear the name. */
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat st;
    char* text = NULL;
    size_t len;
    bool ok;

    if (fd < 0)
        return false;
    ok = fstat(fd, &st) == 0 && file_usable(&st) && (text = read_all(fd, &len)) &&
         json_to_blobmsg(b, text, len);
    free(text);
    close(fd);
    return ok;
}

/* Names are resolved now: an unknown one stands for id 0. A file for nobody is unused. */
static bool rule_resolve(struct acl_rule* rule) {
    blobmsg_parse(rule_policy, __RULE_MAX, rule->tb, blob_data(rule->fields),
                  (unsigned int)blob_len(rule->fields));
    if (rule->tb[RULE_USER]) {
        struct passwd* pw = getpwnam(blobmsg_get_string(rule->tb[RULE_USER]));

        rule->uid = pw ? pw->pw_uid : 0;
        return true;
    }
    if (rule->tb[RULE_GROUP]) {
        struct group* gr = getgrnam(blobmsg_get_string(rule->tb[RULE_GROUP]));

        rule->by_group = true;
        rule->gid = gr ? gr->gr_gid : 0;
        return true;
    }
    return false;
}

static struct acl_rule* rule_read(const char* path) {
    struct blob_buf b = {0};
    struct acl_rule* rule = calloc(1, sizeof(*rule));
    bool ok =
        rule && parse_file(path, &b) && (rule->fields = blob_memdup(b.head)) && rule_resolve(rule);

    blob_buf_free(&b);
    if (ok)
        return rule;
    syslog(LOG_WARNING, "ignoring ACL file %s", path);
    if (rule)
        free(rule->fields);
    free(rule);
    return NULL;
}

static void rules_free(struct list_head* list) {
    struct acl_rule *rule, *tmp;

    list_for_each_entry_safe(rule, tmp, list, entry) {
        list_del(&rule->entry);
        free(rule->fields);
        free(rule);
    }
}

void acl_load(const char* dir) {
    LIST_HEAD(old);
    char* pattern;
    glob_t found;
    int err;

    if (asprintf(&pattern, "%s/*.json", dir) < 0)
        return;
    err = glob(pattern, 0, NULL, &found);
    free(pattern);
    /* No file at all (or no directory) keeps the rules as they are. */
    if (err) {
        globfree(&found);
        return;
    }
    list_splice_init(&rules, &old);
    for (size_t i = 0; i < found.gl_pathc; i++) {
        struct acl_rule* rule = rule_read(found.gl_pathv[i]);

        if (rule)
            list_add_tail(&rule->entry, &rules);
    }
    globfree(&found);
    rules_free(&old);
    events_acl_sequence(++acl_seq);
}
