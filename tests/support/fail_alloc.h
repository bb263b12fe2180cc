// Memory that runs out when the test says so, for code that allocates through the checked calls.
//
//     fail_alloc::at(2);                              // the second allocation from here fails, and only that one
//     EXPECT_EQ(nkht_create(&h, 10, nullptr), ENOMEM);
//
// The program must be linked with the options that go with it (tests/unit/CMakeLists.txt), and include this in
// exactly one source.
#ifndef TESTS_SUPPORT_FAIL_ALLOC_H
#define TESTS_SUPPORT_FAIL_ALLOC_H

#include <cerrno>
#include <cstddef>

namespace fail_alloc
{

inline int countdown = 0; // 0: none fails

inline void at(int nth)
{
    countdown = nth;
}

inline bool now()
{
    if (countdown == 0 || --countdown != 0) return false;
    errno = ENOMEM;
    return true;
}

} // namespace fail_alloc

extern "C" {
// W_calloc and W_realloc, as the linker sees them.
void* __real__Z8W_callocPKcmm(const char* caller, size_t nmemb, size_t size);
void* __wrap__Z8W_callocPKcmm(const char* caller, size_t nmemb, size_t size);
void* __wrap__Z8W_callocPKcmm(const char* caller, size_t nmemb, size_t size)
{
    return fail_alloc::now() ? nullptr : __real__Z8W_callocPKcmm(caller, nmemb, size);
}

void* __real__Z9W_reallocPKcPvm(const char* caller, void* ptr, size_t size);
void* __wrap__Z9W_reallocPKcPvm(const char* caller, void* ptr, size_t size);
void* __wrap__Z9W_reallocPKcPvm(const char* caller, void* ptr, size_t size)
{
    return fail_alloc::now() ? nullptr : __real__Z9W_reallocPKcPvm(caller, ptr, size);
}
}

#endif // TESTS_SUPPORT_FAIL_ALLOC_H
