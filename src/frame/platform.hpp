// The few things that differ between Windows and elsewhere, in one place:
// file access by UTF-8 path (Windows needs UTF-16 for non-ASCII names) and
// worker threads.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace ws::platform {

// fopen/remove/rename taking UTF-8 paths. On Windows the path is converted to
// UTF-16 (code page 65001) and the wide C runtime calls are used; a path that
// is not valid UTF-8 fails like a missing file.
std::FILE* open_file(const char* utf8_path, const char* mode);
bool remove_file(const char* utf8_path);
bool rename_file(const char* utf8_from, const char* utf8_to);

// A mutex that needs no constructor to run: usable from the moment the
// library is loaded, whatever order static initialisers run in. On Windows
// it is a slim reader/writer lock (all-zero initial state), elsewhere a
// pthread mutex through std::mutex, whose constructor is constexpr there.
class StaticMutex {
public:
    constexpr StaticMutex() = default;
    StaticMutex(const StaticMutex&) = delete;
    StaticMutex& operator=(const StaticMutex&) = delete;
    void lock();
    void unlock();

private:
#if defined(_WIN32)
    void* srw_ = nullptr;  // SRWLOCK
#else
    std::mutex mutex_;
#endif
};

// While alive, the sound libraries beneath the audio back end print nothing
// from the calling thread. ALSA reports every failed probe on stderr (a
// machine without a sound card gets a screenful per device open); the
// library has no log, and a host's terminal is not ours to write on. Only
// this thread's messages are dropped: a host's own handler stays in force.
class QuietSoundLibraries {
public:
    QuietSoundLibraries();
    ~QuietSoundLibraries();
    QuietSoundLibraries(const QuietSoundLibraries&) = delete;
    QuietSoundLibraries& operator=(const QuietSoundLibraries&) = delete;

private:
    void (*previous_)() = nullptr;
};

// Worker threads: std::thread sits on the C runtime's thread start on every
// platform (_beginthreadex under mingw's and MSVC's runtimes).
template <class Fn>
std::thread start_thread(Fn&& fn) {
    return std::thread(std::forward<Fn>(fn));
}

}  // namespace ws::platform
