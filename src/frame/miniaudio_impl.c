/* The audio back end's implementation, compiled once into the library with
 * only what the engines use: devices and contexts, no decoding, encoding,
 * resource manager or node graph. Its symbols stay hidden.
 * WASAPI's low-latency shared mode sizes the buffer itself, a few of the
 * engine's shortest periods, and ignores the period count the engines ask
 * for to stay fed; the classic shared mode takes their buffer duration. */
#define MA_WASAPI_NO_LOW_LATENCY_SHARED_MODE
/* The real-time priority the audio threads get where the process may use
 * one (platform.hpp: kAudioThreadPriority, the same number). */
#define MA_PTHREAD_REALTIME_THREAD_PRIORITY 10
#define MA_NO_DECODING
#define MA_NO_ENCODING
#define MA_NO_GENERATION
#define MA_NO_RESOURCE_MANAGER
#define MA_NO_NODE_GRAPH
#define MA_NO_ENGINE
#define MINIAUDIO_IMPLEMENTATION
#include <miniaudio.h>
