/* calloc_a: one zeroed allocation carved into a leading part and further aligned parts. */
#include "libubox/utils.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#define PART_ALIGN _Alignof(max_align_t)

static size_t part_size(size_t len) {
    return (len + PART_ALIGN - 1) & ~(size_t)(PART_ALIGN - 1);
}

/* Part lengths are read as int: callers pass int or size_t expressions, and reading the
 * narrower type works for both on LP64, while reading size_t after an int does not. */
void* __calloc_a(size_t len, ...) {
    va_list ap;
    size_t total = part_size(len);
    char* mem;
    char* cur;
    void** part;

    if (total < len)
        return NULL;

    va_start(ap, len);
    while ((part = va_arg(ap, void**)) != NULL) {
        size_t size = part_size((size_t)(unsigned int)va_arg(ap, int));

        if (total > SIZE_MAX - size) {
            va_end(ap);
            return NULL;
        }
        total += size;
    }
    va_end(ap);

    mem = calloc(1, total);
    if (!mem)
        return NULL;

    cur = mem + part_size(len);
    va_start(ap, len);
    while ((part = va_arg(ap, void**)) != NULL) {
        *part = cur;
        cur += part_size((size_t)(unsigned int)va_arg(ap, int));
    }
    va_end(ap);

    return mem;
}
