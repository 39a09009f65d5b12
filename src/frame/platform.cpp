#include "frame/platform.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>

#if defined(__linux__)
#  include <dlfcn.h>
#  include <cstdarg>
#endif
#if defined(_WIN32)
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <fcntl.h>
#  include <io.h>
#  include <windows.h>
#  include <vector>
#else
#  include <fcntl.h>
#  include <pthread.h>
#  include <sched.h>
#  include <stdio.h>
#  include <sys/stat.h>
#  include <unistd.h>
#endif

namespace ws::platform {

namespace {
void sleep_for_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
bool write_all(std::FILE* f, const void* data, size_t bytes) {
    return std::fwrite(data, 1, bytes, f) == bytes;
}
bool flush_buffer(std::FILE* f) { return std::fflush(f) == 0; }
}  // namespace

#if defined(_WIN32)

namespace {
// The one conversion of UTF-8 paths for every file call. Empty for a null,
// empty or malformed text; callers treat that as a missing file.
std::wstring widen(const char* utf8) {
    if (utf8 == nullptr || *utf8 == '\0') return {};
    const int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, nullptr, 0);
    if (n <= 0) return {};
    std::wstring out(static_cast<size_t>(n), L'\0');
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, out.data(), n) != n) return {};
    out.resize(static_cast<size_t>(n - 1));
    return out;
}

std::string narrow(const wchar_t* wide) {
    const int n = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 0) return {};
    std::string out(static_cast<size_t>(n), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, wide, -1, out.data(), n, nullptr, nullptr) != n) return {};
    out.resize(static_cast<size_t>(n - 1));
    return out;
}

// A handle for looking at a file (directories included), shared with every
// other user of it.
HANDLE open_handle(const std::wstring& path, DWORD access, bool follow_links) {
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (follow_links ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, OPEN_EXISTING, flags, nullptr);
}

HANDLE handle_of(std::FILE* f) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(f))); }
}  // namespace

static_assert(sizeof(SRWLOCK) == sizeof(void*));

void StaticMutex::lock() { AcquireSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&srw_)); }
void StaticMutex::unlock() { ReleaseSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&srw_)); }

std::FILE* open_file(const char* path, const char* mode) {
    const std::wstring wpath = widen(path);
    const std::wstring wmode = widen(mode);
    if (wpath.empty() || wmode.empty()) return nullptr;
    return _wfopen(wpath.c_str(), wmode.c_str());
}

bool remove_file(const char* path) {
    const std::wstring wpath = widen(path);
    return !wpath.empty() && _wremove(wpath.c_str()) == 0;
}

bool rename_file(const char* from, const char* to) {
    const std::wstring a = widen(from), b = widen(to);
    return !a.empty() && !b.empty() && _wrename(a.c_str(), b.c_str()) == 0;
}

FileStatus file_status(const char* path, bool follow_links) {
    FileStatus st;
    const std::wstring w = widen(path);
    if (w.empty()) {
        st.kind = FileStatus::missing;
        return st;
    }
    const HANDLE h = open_handle(w, FILE_READ_ATTRIBUTES, follow_links);
    if (h == INVALID_HANDLE_VALUE) {
        const DWORD e = GetLastError();
        if (e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND) st.kind = FileStatus::missing;
        return st;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    const bool known = GetFileInformationByHandle(h, &info) != 0;
    const DWORD type = GetFileType(h);
    CloseHandle(h);
    if (!known) return st;
    if (!follow_links && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        st.kind = FileStatus::link;
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 || type != FILE_TYPE_DISK) {
        st.kind = FileStatus::other;
    } else {
        st.kind = FileStatus::regular;
    }
    st.device = info.dwVolumeSerialNumber;
    st.inode = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    st.links = info.nNumberOfLinks;
    st.owned_by_me = true;
    return st;
}

std::FILE* open_regular_for_reading(const char* path, bool follow_links) {
    if (!follow_links && file_status(path, false).kind != FileStatus::regular) return nullptr;
    std::FILE* f = open_file(path, "rb");
    if (f != nullptr && GetFileType(handle_of(f)) != FILE_TYPE_DISK) {
        std::fclose(f);
        return nullptr;
    }
    return f;
}

bool resolve_links(const char* path, std::string& out) {
    if (file_status(path, false).kind != FileStatus::link) {
        out = path;
        return true;
    }
    const HANDLE h = open_handle(widen(path), 0, true);
    if (h == INVALID_HANDLE_VALUE) return false;
    std::vector<wchar_t> buffer(32768);
    const DWORD n = GetFinalPathNameByHandleW(h, buffer.data(), static_cast<DWORD>(buffer.size()),
                                              FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    CloseHandle(h);
    if (n == 0 || n >= buffer.size()) return false;
    out = narrow(buffer.data());
    return !out.empty();
}

bool can_write(const char* path) {
    const std::wstring w = widen(path);
    if (w.empty()) return false;
    const DWORD attributes = GetFileAttributesW(w.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_READONLY) != 0) return false;
    const HANDLE h = CreateFileW(w.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    const bool disk = GetFileType(h) == FILE_TYPE_DISK;
    CloseHandle(h);
    return disk;
}

bool rename_no_replace(const char* from, const char* to) {
    const std::wstring a = widen(from), b = widen(to);
    return !a.empty() && !b.empty() && MoveFileExW(a.c_str(), b.c_str(), MOVEFILE_WRITE_THROUGH) != 0;
}

namespace {
std::FILE* sys_create_new(const char* path) {
    const std::wstring w = widen(path);
    if (w.empty()) return nullptr;
    // CREATE_NEW fails on any existing name, a link included.
    const HANDLE h = CreateFileW(w.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return nullptr;
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(h), _O_WRONLY | _O_BINARY);
    if (fd < 0) {
        CloseHandle(h);
        return nullptr;
    }
    std::FILE* f = _fdopen(fd, "wb");
    if (f == nullptr) _close(fd);
    return f;
}

bool sys_sync(std::FILE* f) { return FlushFileBuffers(handle_of(f)) != 0; }

bool sys_copy_mode(std::FILE* f, const char* model) {
    const DWORD attributes = GetFileAttributesW(widen(model).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD e = GetLastError();
        return e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND;
    }
    constexpr DWORD kKept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                            FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    FILE_BASIC_INFO info{};  // zero times: left as they are
    info.FileAttributes = (attributes & kKept) != 0 ? (attributes & kKept) : FILE_ATTRIBUTE_NORMAL;
    return SetFileInformationByHandle(handle_of(f), FileBasicInfo, &info, sizeof info) != 0;
}

bool sys_replace(const char* from, const char* to) {
    const std::wstring a = widen(from), b = widen(to);
    return !a.empty() && !b.empty() &&
           MoveFileExW(a.c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

// The write-through replace has already made the folder's entry durable.
bool sys_sync_folder(const char*) { return true; }
}  // namespace

#else

void StaticMutex::lock() { mutex_.lock(); }
void StaticMutex::unlock() { mutex_.unlock(); }

std::FILE* open_file(const char* path, const char* mode) {
    if (path == nullptr || mode == nullptr || *path == '\0') return nullptr;
    return std::fopen(path, mode);
}

bool remove_file(const char* path) { return path != nullptr && *path && std::remove(path) == 0; }

bool rename_file(const char* from, const char* to) {
    return from != nullptr && to != nullptr && *from && *to && std::rename(from, to) == 0;
}

FileStatus file_status(const char* path, bool follow_links) {
    FileStatus st;
    struct stat s {};
    if (path == nullptr || *path == '\0') {
        st.kind = FileStatus::missing;
        return st;
    }
    if ((follow_links ? ::stat(path, &s) : ::lstat(path, &s)) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) st.kind = FileStatus::missing;
        return st;
    }
    st.kind = S_ISLNK(s.st_mode)   ? FileStatus::link
              : S_ISREG(s.st_mode) ? FileStatus::regular
                                   : FileStatus::other;
    st.device = static_cast<uint64_t>(s.st_dev);
    st.inode = static_cast<uint64_t>(s.st_ino);
    st.links = static_cast<uint32_t>(s.st_nlink);
    st.owned_by_me = s.st_uid == ::geteuid();
    return st;
}

std::FILE* open_regular_for_reading(const char* path, bool follow_links) {
    if (path == nullptr || *path == '\0') return nullptr;
    // Non-blocking, so that a FIFO's open does not wait for a writer.
    const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | (follow_links ? 0 : O_NOFOLLOW));
    if (fd < 0) return nullptr;
    struct stat s {};
    if (::fstat(fd, &s) != 0 || !S_ISREG(s.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    std::FILE* f = ::fdopen(fd, "rb");
    if (f == nullptr) ::close(fd);
    return f;
}

bool resolve_links(const char* path, std::string& out) {
    if (file_status(path, false).kind != FileStatus::link) {
        out = path;
        return true;
    }
    char* real = ::realpath(path, nullptr);
    if (real == nullptr) return false;
    out = real;
    std::free(real);
    return true;
}

bool can_write(const char* path) {
    if (path == nullptr || *path == '\0') return false;
    const int fd = ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    struct stat s {};
    const bool regular = ::fstat(fd, &s) == 0 && S_ISREG(s.st_mode);
    ::close(fd);
    return regular;
}

bool rename_no_replace(const char* from, const char* to) {
    if (from == nullptr || to == nullptr || *from == '\0' || *to == '\0') return false;
#  if defined(__linux__)
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
#  endif
    // A file system without the flag: a second hard link is created only if
    // the name is free, then the first is dropped.
    if (::link(from, to) != 0) return false;
    return ::unlink(from) == 0;
}

namespace {
std::FILE* sys_create_new(const char* path) {
    if (path == nullptr || *path == '\0') return nullptr;
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    std::FILE* f = ::fdopen(fd, "wb");
    if (f == nullptr) ::close(fd);
    return f;
}

bool sys_sync(std::FILE* f) {
    int rc;
    do rc = ::fsync(::fileno(f));
    while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool sys_copy_mode(std::FILE* f, const char* model) {
    struct stat s {};
    if (::stat(model, &s) != 0) return errno == ENOENT;
    const int fd = ::fileno(f);
    // Owner and group where permitted (the group alone is often allowed);
    // before the mode, since a change of owner may clear its special bits.
    if (::fchown(fd, s.st_uid, s.st_gid) != 0 && ::fchown(fd, static_cast<uid_t>(-1), s.st_gid) != 0) {
        // Not permitted: the file stays ours, with the take's mode.
    }
    return ::fchmod(fd, s.st_mode & 07777) == 0;
}

bool sys_replace(const char* from, const char* to) { return ::rename(from, to) == 0; }

bool sys_sync_folder(const char* path) {
    std::string folder(path);
    const size_t slash = folder.find_last_of('/');
    folder = slash == std::string::npos ? "." : slash == 0 ? "/" : folder.substr(0, slash);
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    int rc;
    do rc = ::fsync(fd);
    while (rc != 0 && errno == EINTR);
    // Some file systems cannot sync a folder and say so; nothing more to do there.
    const bool ok = rc == 0 || errno == EINVAL;
    ::close(fd);
    return ok;
}
}  // namespace

#endif

bool same_file(const char* a, const char* b) {
    const FileStatus x = file_status(a, true);
    if (x.kind != FileStatus::regular && x.kind != FileStatus::other) return false;
    const FileStatus y = file_status(b, true);
    return y.kind == x.kind && x.device == y.device && x.inode == y.inode;
}

const ReplaceSteps& system_replace_steps() {
    static const ReplaceSteps steps{sys_create_new, write_all,     flush_buffer,   sys_sync,
                                    sys_copy_mode,  sys_replace, sys_sync_folder, sleep_for_ms};
    return steps;
}

#if defined(_WIN32)
bool realtime_threads_allowed() { return false; }
#else
bool realtime_threads_allowed() {
    static const bool allowed = [] {
        pthread_attr_t attr;
        if (pthread_attr_init(&attr) != 0) return false;
        sched_param param{};
        param.sched_priority = kAudioThreadPriority;
        pthread_t probe;
        const bool ok = pthread_attr_setschedpolicy(&attr, SCHED_FIFO) == 0 &&
                        pthread_attr_setschedparam(&attr, &param) == 0 &&
                        pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED) == 0 &&
                        pthread_create(&probe, &attr, [](void*) -> void* { return nullptr; }, nullptr) == 0;
        pthread_attr_destroy(&attr);
        if (ok) pthread_join(probe, nullptr);
        return ok;
    }();
    return allowed;
}
#endif

#if defined(__linux__)
namespace {
using LocalHandler = void (*)(const char*, int, const char*, int, const char*, va_list);
using SetLocal = LocalHandler (*)(LocalHandler);

void drop(const char*, int, const char*, int, const char*, va_list) {}

// ALSA's per-thread error handler, if ALSA is there at all. The library is
// kept loaded: the back end loads the same one.
SetLocal alsa_set_local() {
    static const SetLocal fn = []() -> SetLocal {
        void* lib = dlopen("libasound.so.2", RTLD_NOW | RTLD_LOCAL);
        return lib != nullptr ? reinterpret_cast<SetLocal>(dlsym(lib, "snd_lib_error_set_local")) : nullptr;
    }();
    return fn;
}
}  // namespace

QuietSoundLibraries::QuietSoundLibraries() {
    if (const SetLocal set = alsa_set_local()) previous_ = reinterpret_cast<void (*)()>(set(&drop));
}

QuietSoundLibraries::~QuietSoundLibraries() {
    if (const SetLocal set = alsa_set_local()) set(reinterpret_cast<LocalHandler>(previous_));
}
#else
QuietSoundLibraries::QuietSoundLibraries() = default;
QuietSoundLibraries::~QuietSoundLibraries() = default;
#endif

}  // namespace ws::platform
