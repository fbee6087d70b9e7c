#include "qsMem.h"

#include "MemoryCap_test.h"

#include <cstring>
#include <gtest/gtest.h>

// Under AddressSanitizer a refused allocation would end the process; these
// tests need malloc to answer null.  Read only by the sanitizer runtime.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

TEST(qsMem, RefusesZeroSizeAndMissingPointersAndKeepsContents) {
    char sentinel[1];
    char *p = sentinel, *none = nullptr;
    EXPECT_EQ(qsMem::Alloc(0, &p, __FILE__, __LINE__), QS_E_INVALIDARG);
    EXPECT_EQ(p, sentinel);
    EXPECT_EQ(qsMem::Alloc(8, static_cast<char**>(nullptr), __FILE__, __LINE__), QS_E_INVALIDARG);
    EXPECT_EQ(qsMem::Realloc(8, &none, __FILE__, __LINE__), QS_E_INVALIDARG);
    EXPECT_EQ(qsMem::Realloc(8, static_cast<char**>(nullptr)), QS_E_INVALIDARG);
    EXPECT_EQ(qsMem::Free(nullptr, __FILE__, __LINE__), QS_E_INVALIDARG);

    int32_t* ints = nullptr;
    ASSERT_EQ(qsMem::Alloc(8, &ints, __FILE__, __LINE__), QS_OK);
    int32_t* before = ints;
    ints[1] = 4;
    EXPECT_EQ(qsMem::Realloc(0, &ints, __FILE__, __LINE__), QS_E_INVALIDARG);
    EXPECT_EQ(ints, before);
    ASSERT_EQ(qsMem::Realloc(4000, &ints, __FILE__, __LINE__), QS_OK);
    EXPECT_EQ(ints[1], 4);
    ints[999] = 5;
    EXPECT_EQ(qsMem::Free(ints, __FILE__, __LINE__), QS_OK);
}

TEST(qsMem, HeapRefusalLeavesCallerPointerAndOldBlock) {
    EXPECT_EQ(qsTest::RunWithMemoryCap([] {
                  char* p = nullptr;
                  if (qsMem::Alloc(qsTest::kImpossibleSize, &p) != QS_E_OUT_OF_MEMORY || p ||
                      qsMem::Alloc(6, &p, __FILE__, __LINE__) != QS_OK)
                      return 1;
                  memcpy(p, "hello", 6);
                  char* before = p;
                  if (qsMem::Realloc(qsTest::kImpossibleSize, &p, __FILE__, 1) !=
                      QS_E_OUT_OF_MEMORY)
                      return 2;
                  return p == before && strcmp(p, "hello") == 0 ? 0 : 3;
              }),
              0);
}
