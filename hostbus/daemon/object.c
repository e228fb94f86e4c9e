/* Objects and their types: creation from ADD_OBJECT, signatures, the id and path indexes. */
#include <string.h>

#include <libubox/blobmsg.h>

#include "ubusd.h"

static struct avl_tree objects_by_id;
static struct avl_tree objects_by_path; /* byte-wise strcmp order, the order of listings */
static struct avl_tree types_by_id;

static int compare_paths(const void* k1, const void* k2, void* ptr) {
    (void)ptr;
    return strcmp(k1, k2);
}

void objects_init(void) {
    id_space_init(&objects_by_id);
    id_space_init(&types_by_id);
    avl_init(&objects_by_path, compare_paths, false, NULL);
}

struct object* object_find(uint32_t id) {
    struct ubus_id* found = id_find(&objects_by_id, id);

    return found ? container_of(found, struct object, id) : NULL;
}

struct object* object_find_path(const char* path) {
    struct avl_node* node = avl_find(&objects_by_path, path);

    return node ? container_of(node, struct object, path_node) : NULL;
}

struct object* object_first_from(const char* path) {
    struct avl_node* node;

    if (!path)
        return avl_is_empty(&objects_by_path)
                   ? NULL
                   : container_of(objects_by_path.list_head.next, struct object, path_node.list);
    node = avl_find_greaterequal(&objects_by_path, path);
    return node ? container_of(node, struct object, path_node) : NULL;
}

struct object* object_next(struct object* obj) {
    if (avl_is_last(&objects_by_path, &obj->path_node))
        return NULL;
    return avl_next_element(obj, path_node);
}

/* An object whose methods the client may not call is hidden, unless it has none. */
bool object_visible_to(const struct object* obj, const struct client* cl) {
    struct blob_attr* cur;
    size_t rem;

    if (!obj->type)
        return false;
    if (cl->privileged || obj->type->n_methods == 0)
        return true;
    blob_for_each_attr(cur, obj->type->signature, rem) {
        if (acl_allows_call(cl, obj->path, blobmsg_name(cur)))
            return true;
    }
    return false;
}

static struct object_type* type_find(uint32_t id) {
    struct ubus_id* found = id_find(&types_by_id, id);

    return found ? container_of(found, struct object_type, id) : NULL;
}

/* Every top-level entry must be a valid blobmsg attribute with a name; what is inside
 * the entries is the owner's business and is handed out as registered. */
static struct object_type* type_create(struct blob_attr* signature) {
    size_t total = sizeof(struct blob_attr);
    unsigned int n_methods = 0;
    struct object_type* type;
    struct blob_attr* cur;
    uint8_t* out;
    size_t rem;

    blob_for_each_attr(cur, signature, rem) {
        if (!blobmsg_check_attr(cur, true))
            return NULL;
        total += blob_pad_len(cur);
        n_methods++;
    }
    type = calloc(1, sizeof(*type));
    if (!type)
        return NULL;
    type->signature = calloc(1, total);
    if (!type->signature || !id_alloc(&types_by_id, &type->id, NULL)) {
        free(type->signature);
        free(type);
        return NULL;
    }
    type->n_methods = n_methods;
    type->signature->id_len =
        cpu_to_be32(((uint32_t)UBUS_ATTR_SIGNATURE << BLOB_ATTR_ID_SHIFT) | (uint32_t)total);
    out = blob_data(type->signature);
    blob_for_each_attr(cur, signature, rem) {
        /* The buffer is zeroed, so copying the raw length leaves clean padding. */
        memcpy(out, cur, blob_raw_len(cur));
        out += blob_pad_len(cur);
    }
    return type;
}

static void type_release(struct object_type* type) {
    if (--type->refs)
        return;
    id_free(&types_by_id, &type->id);
    free(type->signature);
    free(type);
}

static struct object_type* type_for(struct blob_attr** tb) {
    if (tb[UBUS_ATTR_OBJTYPE])
        return type_find(blob_get_u32(tb[UBUS_ATTR_OBJTYPE]));
    if (tb[UBUS_ATTR_SIGNATURE])
        return type_create(tb[UBUS_ATTR_SIGNATURE]);
    return NULL;
}

int object_create(struct client* owner, struct blob_attr** tb, struct object** out) {
    const char* path = tb[UBUS_ATTR_OBJPATH] ? blob_data(tb[UBUS_ATTR_OBJPATH]) : NULL;
    struct object* obj;

    if (path && (!acl_allows(owner, ACL_PUBLISH, path) || object_find_path(path)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    obj = calloc(1, sizeof(*obj));
    if (!obj)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (path) {
        obj->path = strdup(path);
        if (!obj->path) {
            free(obj);
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
    }
    if (!id_alloc(&objects_by_id, &obj->id, NULL)) {
        free(obj->path);
        free(obj);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (obj->path) {
        obj->path_node.key = obj->path;
        avl_insert(&objects_by_path, &obj->path_node);
    }
    /* A rejected signature or an unknown type id leaves the object untyped, not refused. */
    obj->type = type_for(tb);
    if (obj->type)
        obj->type->refs++;
    obj->owner = owner;
    INIT_LIST_HEAD(&obj->event_patterns);
    INIT_LIST_HEAD(&obj->subscribers);
    INIT_LIST_HEAD(&obj->targets);
    list_add_tail(&obj->owner_entry, &owner->objects);
    *out = obj;
    return UBUS_STATUS_OK;
}

void object_destroy(struct object* obj) {
    subscriptions_object_removed(obj);
    events_object_removed(obj);
    list_del(&obj->owner_entry);
    if (obj->path)
        avl_delete(&objects_by_path, &obj->path_node);
    id_free(&objects_by_id, &obj->id);
    if (obj->type)
        type_release(obj->type);
    free(obj->path);
    free(obj);
}
