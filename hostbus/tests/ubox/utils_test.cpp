// calloc_a: one zeroed block holding a struct and the variable parts that follow it.
// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/utils.h>
}

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

TEST(CallocA, CarvesAlignedDisjointZeroedParts) {
    char* name;
    uint64_t* values;
    int name_len = 8; // part lengths may be int as well as size_t
    char* block =
        static_cast<char*>(calloc_a(sizeof(int), &name, name_len, &values, 3 * sizeof(uint64_t)));
    ASSERT_NE(block, nullptr);

    EXPECT_GE(name, block + sizeof(int));
    EXPECT_GE(reinterpret_cast<char*>(values), name + name_len);
    for (void* part : {static_cast<void*>(name), static_cast<void*>(values)})
        EXPECT_EQ(reinterpret_cast<uintptr_t>(part) % alignof(max_align_t), 0u);
    char* end = reinterpret_cast<char*>(values + 3);
    EXPECT_LE(static_cast<size_t>(end - block), malloc_usable_size(block));
    EXPECT_EQ(std::count(block, end, 0), end - block);
    free(block);
}
