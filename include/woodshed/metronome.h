/*
 * Woodshed metronome (mn_): sample-accurate click track.
 */
#ifndef WOODSHED_METRONOME_H
#define WOODSHED_METRONOME_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t mn_abi_version(void);

#ifdef __cplusplus
}
#endif

#endif
