// The few things that differ between Windows and elsewhere, in one place:
// file access by UTF-8 path (Windows needs UTF-16 for non-ASCII names), the
// file-system calls of a replacement that cannot lose the file it replaces,
// and worker threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace ws::platform {

// fopen/remove/rename taking UTF-8 paths. On Windows the path is converted to
// UTF-16 (code page 65001) and the wide calls are used; a path that is not
// valid UTF-8 fails like a missing file.
std::FILE* open_file(const char* utf8_path, const char* mode);
bool remove_file(const char* utf8_path);
bool rename_file(const char* utf8_from, const char* utf8_to);

// Opens an existing regular file for reading ("rb"). Anything else (a
// directory, a FIFO, a device) is refused without blocking; with
// follow_links false a symbolic link is refused too.
std::FILE* open_regular_for_reading(const char* utf8_path, bool follow_links = true);

// What a path names. `follow_links` false looks at a link itself.
struct FileStatus {
    enum Kind : uint8_t { missing, regular, link, other, unknown } kind = unknown;
    uint64_t device = 0, inode = 0;  // with the kind, one file's identity
    uint32_t links = 0;              // hard links to it
    bool owned_by_me = false;        // by this process's user (always true on Windows)
};
FileStatus file_status(const char* utf8_path, bool follow_links);

// Whether both paths name one existing file (links of either kind followed).
bool same_file(const char* utf8_a, const char* utf8_b);

// The path a symbolic link finally leads to, or the path itself when it is
// not a link. False for a link that leads nowhere.
bool resolve_links(const char* utf8_path, std::string& out);

// Whether an existing regular file may be changed: it opens for update
// (which fails for a file another program holds without sharing) and, on
// Windows, lacks the read-only attribute. Never blocks.
bool can_write(const char* utf8_path);

// Renames only if nothing exists at `to`, atomically.
bool rename_no_replace(const char* utf8_from, const char* utf8_to);

// The steps of a safe replacement, one function each so that tests can make
// any of them fail (or end the process) in turn.
struct ReplaceSteps {
    // Creates a new file for writing, failing if anything (a link included)
    // exists at the name.
    std::FILE* (*create_new)(const char* path);
    bool (*write)(std::FILE* f, const void* data, size_t bytes);
    bool (*flush)(std::FILE* f);  // the C library's buffer to the system
    bool (*sync)(std::FILE* f);   // the system's cache to stable storage
    // Gives the open file the mode and, where permitted, the owner and group
    // of `model` (POSIX), or its attributes (Windows). True when `model`
    // does not exist.
    bool (*copy_mode)(std::FILE* f, const char* model);
    // Puts `from` in the place of `to` in one atomic step (the name `to` is
    // never missing).
    bool (*replace)(const char* from, const char* to);
    // Makes the folder holding `path` durable (its entries, after a replace).
    bool (*sync_folder)(const char* path);
    void (*sleep_ms)(int ms);
};
const ReplaceSteps& system_replace_steps();

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

// The fixed real-time priority (SCHED_FIFO) of the audio threads on POSIX
// systems, low among real-time threads: enough to run before every ordinary
// thread of a busy machine, below sound servers and the kernel's own.
inline constexpr int kAudioThreadPriority = 10;

// Whether this process may start threads at that priority (root, a real-time
// limit or a capability allows it; most desktop users are not allowed). Asked
// once, by starting such a thread. Windows: false, its audio threads take the
// multimedia class scheduler's priority through the back end instead.
bool realtime_threads_allowed();

// Worker threads: std::thread sits on the C runtime's thread start on every
// platform (_beginthreadex under mingw's and MSVC's runtimes).
template <class Fn>
std::thread start_thread(Fn&& fn) {
    return std::thread(std::forward<Fn>(fn));
}

}  // namespace ws::platform
