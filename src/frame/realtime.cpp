#include "frame/realtime.hpp"

namespace ws::rt {

std::atomic<Probe>& probe() {
    static constinit std::atomic<Probe> instance{nullptr};
    return instance;
}

}  // namespace ws::rt
