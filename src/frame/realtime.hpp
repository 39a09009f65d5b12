// A hook that lets tests watch what audio callbacks do. Every data callback
// opens a CallbackScope; when a test has installed a probe, the probe is told
// when the callback starts and ends, and the test counts allocations and
// lock calls in between. Without a probe the cost is one relaxed load.
#pragma once

#include <atomic>

namespace ws::rt {

using Probe = void (*)(bool entering);

std::atomic<Probe>& probe();

class CallbackScope {
public:
    CallbackScope() : probe_(probe().load(std::memory_order_relaxed)) {
        if (probe_ != nullptr) probe_(true);
    }
    ~CallbackScope() {
        if (probe_ != nullptr) probe_(false);
    }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    Probe probe_;
};

}  // namespace ws::rt
