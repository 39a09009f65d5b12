/* The audio back end's implementation, compiled once into the library with
 * only what the engines use: devices and contexts, no decoding, encoding,
 * resource manager or node graph. Its symbols stay hidden. */
#define MA_NO_DECODING
#define MA_NO_ENCODING
#define MA_NO_GENERATION
#define MA_NO_RESOURCE_MANAGER
#define MA_NO_NODE_GRAPH
#define MA_NO_ENGINE
#define MINIAUDIO_IMPLEMENTATION
#include <miniaudio.h>
