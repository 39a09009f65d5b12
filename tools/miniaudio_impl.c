/* miniaudio's implementation for the command-line program: decoding only.
 * The library builds its own copy; this one never leaves the executable. */
#define MA_NO_DEVICE_IO
#define MA_NO_ENCODING
#define MA_NO_GENERATION
#define MA_NO_RESOURCE_MANAGER
#define MA_NO_NODE_GRAPH
#define MA_NO_ENGINE
#define MA_NO_THREADING
#define MINIAUDIO_IMPLEMENTATION
#include <miniaudio.h>
