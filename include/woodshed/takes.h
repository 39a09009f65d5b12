/*
 * Woodshed take tools (ta_): delay analysis and leak removal on take WAV files.
 */
#ifndef WOODSHED_TAKES_H
#define WOODSHED_TAKES_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t ta_abi_version(void);

#ifdef __cplusplus
}
#endif

#endif
