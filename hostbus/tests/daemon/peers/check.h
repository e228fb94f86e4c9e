/* Failure reporting for the test peers: a failed check prints where and exits 1. */
#ifndef ORVIX_PEERS_CHECK_H
#define ORVIX_PEERS_CHECK_H

#include <stdio.h>
#include <stdlib.h>

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

#endif
