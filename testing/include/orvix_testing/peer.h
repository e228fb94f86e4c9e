/* For the C programs that play the other side of the bus in tests and benchmarks. */
#ifndef ORVIX_TESTING_PEER_H
#define ORVIX_TESTING_PEER_H

#include <stdio.h>
#include <stdlib.h>

/* A failed check prints where and exits 1: the test sees the status and the text. */
#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

#define CHECK_EQ(actual, expected)                                                                 \
    do {                                                                                           \
        long long a_ = (long long)(actual), e_ = (long long)(expected);                            \
        if (a_ != e_) {                                                                            \
            fprintf(stderr, "%s:%d: %s is %lld, expected %lld\n", __FILE__, __LINE__, #actual, a_, \
                    e_);                                                                           \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

/* Tells the test, which waits for this line, that the peer is on the bus. */
static inline void peer_ready(void) {
    printf("ready\n");
    fflush(stdout);
}

#endif
