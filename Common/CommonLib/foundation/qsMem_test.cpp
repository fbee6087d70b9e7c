#include "qsMem.h"

#include "MemoryCap_test.h"

#include <cstring>
#include <gtest/gtest.h>

// Under AddressSanitizer a refused allocation would end the process; these
// tests need malloc to answer null, as it does without the sanitizer.  Read
// only by the sanitizer runtime.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

TEST(qsMem, RefusesZeroSizeAndMissingPointers) {
    for (const char* file : {static_cast<const char*>(nullptr), __FILE__}) {
        char sentinel[1];
        char* p = sentinel;
        char* none = nullptr;
        EXPECT_EQ(qsMem::Alloc(0, &p, file, __LINE__), QS_E_INVALIDARG);
        EXPECT_EQ(p, sentinel);
        EXPECT_EQ(qsMem::Alloc(8, static_cast<char**>(nullptr), file, 1), QS_E_INVALIDARG);
        EXPECT_EQ(qsMem::Realloc(8, &none, file, __LINE__), QS_E_INVALIDARG);
        EXPECT_EQ(qsMem::Realloc(8, static_cast<char**>(nullptr), file, 1), QS_E_INVALIDARG);
        EXPECT_EQ(qsMem::Free(nullptr, file, __LINE__), QS_E_INVALIDARG);

        ASSERT_EQ(qsMem::Alloc(4, &p, file, __LINE__), QS_OK);
        char* before = p;
        EXPECT_EQ(qsMem::Realloc(0, &p, file, __LINE__), QS_E_INVALIDARG);
        EXPECT_EQ(p, before);
        EXPECT_EQ(qsMem::Free(p, file, __LINE__), QS_OK);
    }
}

TEST(qsMem, ReallocKeepsContentsForAnyPointerType) {
    struct Pair {
        int32_t a, b;
    };
    Pair* pairs = nullptr;
    ASSERT_EQ(qsMem::Alloc(2 * sizeof(Pair), &pairs, __FILE__, __LINE__), QS_OK);
    pairs[1] = {3, 4};
    ASSERT_EQ(qsMem::Realloc(1000 * sizeof(Pair), &pairs, __FILE__, __LINE__), QS_OK);
    EXPECT_EQ(pairs[1].b, 4);
    pairs[999] = {5, 6};
    EXPECT_EQ(qsMem::Free(pairs, __FILE__, __LINE__), QS_OK);
}

TEST(qsMem, HeapRefusalLeavesCallerPointerAndOldBlock) {
    int rc = qsTest::RunWithMemoryCap([] {
        for (const char* file : {static_cast<const char*>(nullptr), __FILE__}) {
            char* p = nullptr;
            if (qsMem::Alloc(qsTest::kImpossibleSize, &p, file, __LINE__) != QS_E_OUT_OF_MEMORY ||
                p)
                return 1;
            if (qsMem::Alloc(6, &p, file, __LINE__) != QS_OK)
                return 2;
            memcpy(p, "hello", 6);
            char* before = p;
            if (qsMem::Realloc(qsTest::kImpossibleSize, &p, file, __LINE__) != QS_E_OUT_OF_MEMORY)
                return 3;
            if (p != before || strcmp(p, "hello") != 0)
                return 4;
            qsMem::Free(p, file, __LINE__);
        }
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

} // namespace
