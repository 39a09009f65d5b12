// The metronome's watchdog rule, apart from any device or thread, so that a
// test can drive it with a device of its own and a clock it moves by hand.
//
// After the back end reports the device stopped, rerouted or back from an
// interruption, the next pass reopens it: the chosen device first, the
// default once if that fails; a click that was playing restarts at once,
// from bar 0 without count-in. A report while no device is open and no click
// was started is dropped.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "frame/reopen.hpp"
#include "woodshed/common.h"

namespace ws::metronome {

class Watchdog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto kPeriod = std::chrono::milliseconds(50);

    // From the notification callback: no lock, no allocation.
    void report_lost() { lost_.store(true, std::memory_order_release); }
    bool lost_pending() const { return lost_.load(std::memory_order_acquire); }

    // One pass at `now`; answers when the next one is due. `Host` gives:
    //   lock()                     a guard of the control mutex
    //   device_open(), started()   read under that guard
    //   mark_reopening()           the status shows the reopen
    //   open(bool default_device)  a ws result
    //   restart_without_count_in()
    template <class Host>
    Clock::time_point step(Host& host, Clock::time_point now) {
        if (lost_.exchange(false, std::memory_order_acq_rel)) {
            auto guard = host.lock();
            if (host.device_open() || host.started()) {
                host.mark_reopening();
                const bool was_started = host.started();
                const int32_t r =
                    frame::reopen_chosen_or_default([&host](bool fallback) { return host.open(fallback); });
                if (r == ws_ok && was_started) host.restart_without_count_in();
            }
        }
        return now + kPeriod;
    }

    // The worker thread's loop: a pass, then sleep to its deadline (a sleep
    // that wakes early sleeps again) while `running` holds.
    template <class Host>
    void run(Host& host, const std::atomic<bool>& running) {
        while (running.load()) {
            const Clock::time_point deadline = step(host, Clock::now());
            while (Clock::now() < deadline && running.load()) std::this_thread::sleep_until(deadline);
        }
    }

private:
    std::atomic<bool> lost_{false};
};

}  // namespace ws::metronome
