// The frame every locked export of a family runs in: one process-wide mutex,
// one owning instance pointer, and the fixed order of checks (instance before
// pointers) that hosts rely on.
//
// A Family object is meant to live at namespace scope with constant
// initialisation: the mutex is usable before any constructor runs, and the
// raw owning pointer has no destructor, so unloading the library never joins
// an engine's threads under the loader's lock. A host that forgets to destroy
// leaks the instance; it does not hang at exit.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>

#include "frame/platform.hpp"

#include "woodshed/common.h"

namespace ws::frame {

// The library's one way of ending the process: for what no result code can
// report (memory exhausted inside a call that has no code for it, a worker
// thread or mutex the system refuses). An exception must never unwind into
// the host, and a half-done call cannot be reported as anything else.
// Nothing is printed: the library has no log.
[[noreturn]] inline void fatal() noexcept { std::abort(); }

// Runs fn; anything it throws ends the process through fatal().
template <class Fn>
auto fatal_on_throw(Fn&& fn) noexcept -> decltype(fn()) {
    try {
        return fn();
    } catch (...) {
        fatal();
    }
}

template <class Engine>
class Family {
public:
    constexpr Family() = default;
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;

    // make() returns a std::unique_ptr<Engine>. Engine::context_ready() tells
    // whether its audio context came up; if not, the half-built engine is
    // destroyed here and the family stays without instance.
    // Whatever throws inside these calls (make(), fn) ends the process
    // through fatal().
    template <class Make>
    int create(Make&& make) noexcept {
        return fatal_on_throw([&] {
            std::lock_guard<platform::StaticMutex> lock(mutex_);
            if (instance_ != nullptr) return int{ws_already_created};
            std::unique_ptr<Engine> engine = make();
            if (!engine->context_ready()) return int{ws_backend_init_failed};
            delete instance_;  // cannot exist here; kept so ownership stays obvious
            instance_ = engine.release();
            return int{ws_ok};
        });
    }

    // Detaches the instance first, then destroys it with the mutex still
    // held, so no other call of the family can see a half-destroyed engine.
    int destroy() noexcept {
        return fatal_on_throw([&] {
            std::lock_guard<platform::StaticMutex> lock(mutex_);
            Engine* engine = instance_;
            if (engine == nullptr) return int{ws_not_created};
            instance_ = nullptr;
            delete engine;
            return int{ws_ok};
        });
    }

    // Runs fn(engine) under the mutex. With no instance the answer is -2 even
    // when a required pointer is also null; then any null in `required` gives
    // -3. fn's return value is passed through (int, or a wider count).
    template <class Fn, class... Ptrs>
    auto call(Fn&& fn, const Ptrs*... required) noexcept -> decltype(fn(std::declval<Engine&>())) {
        using Result = decltype(fn(std::declval<Engine&>()));
        return fatal_on_throw([&]() -> Result {
            std::lock_guard<platform::StaticMutex> lock(mutex_);
            if (instance_ == nullptr) return Result(ws_not_created);
            const bool missing = (... || (required == nullptr));
            if (missing) return Result(ws_invalid_argument);
            return fn(*instance_);
        });
    }

    // For tests: whether an instance exists right now (takes the mutex).
    bool has_instance() {
        std::lock_guard<platform::StaticMutex> lock(mutex_);
        return instance_ != nullptr;
    }

private:
    platform::StaticMutex mutex_;
    Engine* instance_ = nullptr;
};

}  // namespace ws::frame
