/* Random identifiers for clients, objects and types. Ids below 1024 are reserved for the
 * built-in objects, and random values keep ids of departed peers from being guessed. */
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "ubusd.h"

/* A fresh draw practically never collides; the bound only guards a broken random source. */
#define ID_MAX_DRAWS 64

static int random_fd = -1;

int id_init(void) {
    random_fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    return random_fd < 0 ? -1 : 0;
}

static int compare_ids(const void* k1, const void* k2, void* ptr) {
    uint32_t a = *(const uint32_t*)k1;
    uint32_t b = *(const uint32_t*)k2;

    (void)ptr;
    return a < b ? -1 : a > b;
}

void id_space_init(struct avl_tree* space) {
    avl_init(space, compare_ids, false, NULL);
}

static bool draw(uint32_t* value) {
    ssize_t n;

    do
        n = read(random_fd, value, sizeof(*value));
    while (n < 0 && errno == EINTR);
    return n == (ssize_t)sizeof(*value);
}

bool id_alloc(struct avl_tree* space, struct ubus_id* id, bool (*usable)(uint32_t)) {
    for (int i = 0; i < ID_MAX_DRAWS; i++) {
        if (!draw(&id->id))
            return false;
        if (id->id < UBUS_SYSTEM_OBJECT_MAX || (usable && !usable(id->id)))
            continue;
        id->avl.key = &id->id;
        if (avl_insert(space, &id->avl) == 0)
            return true;
    }
    return false;
}

void id_free(struct avl_tree* space, struct ubus_id* id) {
    avl_delete(space, &id->avl);
}

struct ubus_id* id_find(const struct avl_tree* space, uint32_t id) {
    struct avl_node* node = avl_find(space, &id);

    return node ? container_of(node, struct ubus_id, avl) : NULL;
}
