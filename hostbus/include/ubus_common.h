/* Definitions shared by the client library and the daemon. */
#ifndef __UBUS_COMMON_H
#define __UBUS_COMMON_H

#include <stdbool.h>

/* Signature markers, just past the blobmsg types. */
#define UBUS_SIGNATURE_METHOD 9
#define UBUS_SIGNATURE_END 10

/* Matches `str` against `pattern`, where a trailing '*' in the pattern matches any rest.
 * On a match *len is the number of characters of `str` that the pattern consumed. */
static inline bool ubus_strmatch_len(const char* str, const char* pattern, int* len) {
    *len = 0;

    while (1) {
        if (!*pattern && !*str)
            return true;

        if (*pattern == '*' && !pattern[1]) {
            while (str[0]) {
                str++;
                (*len)++;
            }
            return true;
        }

        if (*pattern != *str)
            return false;

        str++;
        pattern++;
        (*len)++;
    }
}

#endif
