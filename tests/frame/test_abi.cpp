// The library as a host sees it: the shared version export (record sizes are
// pinned by the headers' static assertions, in C by headers_as_c.c).
#include <gtest/gtest.h>

#include "woodshed/woodshed.h"

#if defined(_WIN32)
#  include <windows.h>
#else
#  include <dlfcn.h>
#endif

namespace {

void* library_symbol(const char* name) {
#if defined(_WIN32)
    HMODULE lib = GetModuleHandleA(WOODSHED_LIBRARY_FILE);
    return lib ? reinterpret_cast<void*>(GetProcAddress(lib, name)) : nullptr;
#else
    return dlsym(RTLD_DEFAULT, name);
#endif
}

TEST(Abi, VersionQueriesAreOneFunctionReturningOne) {
    EXPECT_EQ(tn_abi_version(), 1);
    EXPECT_EQ(mn_abi_version(), 1);
    EXPECT_EQ(sd_abi_version(), 1);
    EXPECT_EQ(ta_abi_version(), 1);
    void* tn = library_symbol("tn_abi_version");
    ASSERT_NE(tn, nullptr);
    for (const char* other : {"mn_abi_version", "sd_abi_version", "ta_abi_version"}) {
        EXPECT_EQ(library_symbol(other), tn) << other;
    }
}

}  // namespace
