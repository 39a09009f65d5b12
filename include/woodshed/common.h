/*
 * Woodshed: result codes, the export macro and the version query shared by
 * every family (tn_ tuner, mn_ metronome, sd_ duplex recorder, ta_ take tools).
 *
 * Conventions a host can rely on:
 *  - Every export has C linkage and an undecorated name.
 *  - Errors are return values; nothing throws across this interface.
 *  - Calls of one family are serialised by that family's lock; any host thread
 *    may call them. Different families run independently.
 *  - Records are little-endian with fixed field offsets (locked below each
 *    definition with static assertions); hosts may read them by offset.
 *  - Most calls return 0 for success and a negative ws_result on failure.
 *    Query calls that copy something out answer 1 (copied) or 0 (nothing to
 *    copy) instead; each declaration says which convention it follows.
 */
#ifndef WOODSHED_COMMON_H
#define WOODSHED_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(WOODSHED_BUILDING)
#    define WS_API __declspec(dllexport)
#  else
#    define WS_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define WS_API __attribute__((visibility("default")))
#else
#  define WS_API
#endif

/* Compiled as C++, the exports are declared noexcept: nothing unwinds into
 * the host. What no result code can report (memory exhausted inside a call
 * that has no code for it, a worker thread the system refuses to start)
 * ends the process; the declarations of the calls that can fail that way
 * say so. */
#ifdef __cplusplus
#  define WS_NOEXCEPT noexcept
#else
#  define WS_NOEXCEPT
#endif

#ifdef __cplusplus
#  define WS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#  define WS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Signed 32-bit result of the exported calls. Values -4 to -9 are unused. */
typedef enum ws_result {
    ws_ok = 0,
    ws_already_created = -1,     /* a create call while the family's instance exists */
    ws_not_created = -2,         /* the call needs the family's instance and there is none */
    ws_invalid_argument = -3,    /* a required pointer was null or an argument out of range */
    ws_backend_init_failed = -10,/* the audio context could not be initialised */
    ws_no_device = -11,          /* the device does not exist or its type is unsupported */
    ws_device_busy = -12,        /* busy, unavailable, not initialised or not started */
    ws_access_denied = -13,      /* the operating system refused access to the device */
    ws_unsupported_format = -14, /* invalid data or unsupported format (also: not a WAV file) */
    ws_device_failure = -15      /* any other failure reported by the audio back end */
} ws_result;

/* The interface version this header describes; every family's *_abi_version
 * export returns it, and all four are the same function. */
#define WS_ABI_VERSION 1

/* One audio device as the live families list it (528 bytes). The whole record
 * is zeroed before it is filled, so text fields are NUL-padded. */
typedef struct DeviceRecord {
    char id_text[264];   /* lower-case hex spelling of the device id; pass it back to choose the device */
    char name[256];      /* device name (UTF-8) as the audio back end reports it, cut to 255 bytes */
    uint32_t is_default; /* 1 if this is the system default device of its direction */
    uint32_t reserved;   /* zero */
} DeviceRecord;

WS_STATIC_ASSERT(sizeof(DeviceRecord) == 528, "DeviceRecord is 528 bytes");
WS_STATIC_ASSERT(offsetof(DeviceRecord, id_text) == 0, "DeviceRecord.id_text");
WS_STATIC_ASSERT(offsetof(DeviceRecord, name) == 264, "DeviceRecord.name");
WS_STATIC_ASSERT(offsetof(DeviceRecord, is_default) == 520, "DeviceRecord.is_default");
WS_STATIC_ASSERT(offsetof(DeviceRecord, reserved) == 524, "DeviceRecord.reserved");

#ifdef __cplusplus
}
#endif

#endif
