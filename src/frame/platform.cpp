#include "frame/platform.hpp"

#if defined(__linux__)
#  include <dlfcn.h>
#  include <cstdarg>
#endif
#if defined(_WIN32)
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <windows.h>
#  include <vector>
#endif

namespace ws::platform {

#if defined(_WIN32)

namespace {
// Empty result for a null or malformed path; callers treat it as not found.
std::wstring widen(const char* utf8) {
    if (utf8 == nullptr || *utf8 == '\0') return {};
    const int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, nullptr, 0);
    if (n <= 0) return {};
    std::wstring out(static_cast<size_t>(n), L'\0');
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, out.data(), n) != n) return {};
    out.resize(static_cast<size_t>(n - 1));
    return out;
}
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
