// SPDX-License-Identifier: MIT
/* miniaudio's implementation for the command-line program: decoding, and a
 * playback stream for the demo's musician. The library builds its own copy;
 * this one never leaves the executable. */
#define MA_NO_ENCODING
#define MA_NO_GENERATION
#define MA_NO_RESOURCE_MANAGER
#define MA_NO_NODE_GRAPH
#define MA_NO_ENGINE
#define MINIAUDIO_IMPLEMENTATION
#include <miniaudio.h>
