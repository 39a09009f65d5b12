// Version queries. The four families' exports are one function: hosts compare
// the number, and a single definition means the four can never disagree.
#include "woodshed/woodshed.h"

extern "C" WS_API int32_t tn_abi_version(void) WS_NOEXCEPT { return WS_ABI_VERSION; }

#if defined(_MSC_VER) && !defined(__clang__)
#  pragma comment(linker, "/export:mn_abi_version=tn_abi_version")
#  pragma comment(linker, "/export:sd_abi_version=tn_abi_version")
#  pragma comment(linker, "/export:ta_abi_version=tn_abi_version")
#else
#  if !defined(__clang__)
// An alias is its target's very code, so it cannot lack any of its attributes.
#    pragma GCC diagnostic ignored "-Wmissing-attributes"
#  endif
extern "C" WS_API int32_t mn_abi_version(void) WS_NOEXCEPT __attribute__((alias("tn_abi_version")));
extern "C" WS_API int32_t sd_abi_version(void) __attribute__((alias("tn_abi_version")));
extern "C" WS_API int32_t ta_abi_version(void) WS_NOEXCEPT __attribute__((alias("tn_abi_version")));
#endif

// A fixed mask for the host to test; the library attaches no logic to it.
extern "C" WS_API int32_t tn_capabilities(void) WS_NOEXCEPT { return 31; }
