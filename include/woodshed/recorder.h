/*
 * Woodshed duplex recorder (sd_): plays a backing track and records a take aligned with it.
 */
#ifndef WOODSHED_RECORDER_H
#define WOODSHED_RECORDER_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t sd_abi_version(void);

#ifdef __cplusplus
}
#endif

#endif
