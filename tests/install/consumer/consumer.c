/* A host of the installed library: every public header compiles as C from
 * the install tree, and the calls resolve against the installed library. */
#include <stdio.h>
#include <woodshed/woodshed.h>

int main(void) {
    const int32_t abi = tn_abi_version();
    const int32_t caps = tn_capabilities();
    printf("abi %d capabilities %d\n", (int)abi, (int)caps);
    return abi == WS_ABI_VERSION && abi == 1 && caps == 31 ? 0 : 1;
}
