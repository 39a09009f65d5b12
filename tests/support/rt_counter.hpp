// Counts what real-time code must never do. Linked into a test binary, this
// replaces the global allocation functions and, on glibc without a sanitizer
// (WS_INTERPOSE_LIBC), malloc and the mutex, semaphore and sleep calls, with
// versions that count their calls on threads that are armed. Tests arm the
// thread around code that must stay quiet: a render call directly, or every
// audio callback through the library's callback probe.
#pragma once

namespace ws::test::rt {

void arm(bool on);          // this thread
long counted();             // calls seen on armed threads since reset()
long callbacks();           // callbacks seen by probe() since reset()
void reset();
// For ws::rt::probe(): arms the audio thread for the span of each callback.
void probe(bool entering);

struct Armed {
    Armed() { arm(true); }
    ~Armed() { arm(false); }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};

}  // namespace ws::test::rt
