// The watchdog's rule driven by hand: a device that answers as scripted, a
// clock that moves only when the test says, and the calls the watchdog makes
// read back in order.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "metronome/watchdog.hpp"

namespace {

using ws::metronome::Watchdog;

struct ScriptedHost {
    bool open_now = true, started_now = false;
    std::deque<int32_t> answers;  // results of the next opens; ws_ok when empty
    std::vector<std::string> calls;
    bool held = false;

    // A guard that marks the control mutex held for as long as it lives.
    auto lock() {
        held = true;
        return std::unique_ptr<bool, void (*)(bool*)>(&held, [](bool* h) { *h = false; });
    }
    bool device_open() const { return open_now; }
    bool started() const { return started_now; }
    void mark_reopening() { calls.push_back(held ? "reopening" : "reopening unlocked"); }
    int32_t open(bool default_device) {
        EXPECT_TRUE(held) << "opened without the control mutex";
        calls.push_back(default_device ? "open default" : "open chosen");
        const int32_t r = answers.empty() ? ws_ok : answers.front();
        if (!answers.empty()) answers.pop_front();
        open_now = r == ws_ok;
        return r;
    }
    void restart_without_count_in() { calls.push_back("restart"); }
};

using Calls = std::vector<std::string>;

TEST(MetronomeWatchdog, AReportedLossReopensOnTheNextPassAsTheRuleSays) {
    struct Row { const char* what; bool open, started; std::vector<int32_t> answers; Calls expect; };
    const Row rows[] = {
        {"playing", true, true, {}, {"reopening", "open chosen", "restart"}},
        {"stopped, device open", true, false, {}, {"reopening", "open chosen"}},
        {"chosen device gone", true, true, {ws_no_device}, {"reopening", "open chosen", "open default", "restart"}},
        {"nothing opens", true, true, {ws_no_device, ws_device_busy}, {"reopening", "open chosen", "open default"}},
        {"started, the last open failed", false, true, {}, {"reopening", "open chosen", "restart"}},
        {"never opened, not started", false, false, {}, {}},
    };
    for (const Row& r : rows) {
        ScriptedHost host;
        host.open_now = r.open;
        host.started_now = r.started;
        host.answers.assign(r.answers.begin(), r.answers.end());
        Watchdog dog;
        const Watchdog::Clock::time_point t0{};
        EXPECT_EQ(dog.step(host, t0), t0 + Watchdog::kPeriod) << r.what;
        EXPECT_EQ(host.calls, Calls{}) << r.what;  // nothing reported, nothing done
        dog.report_lost();
        dog.report_lost();  // reports before a pass count once
        EXPECT_EQ(dog.step(host, t0 + Watchdog::kPeriod), t0 + 2 * Watchdog::kPeriod) << r.what;
        EXPECT_EQ(host.calls, r.expect) << r.what;
        EXPECT_FALSE(dog.lost_pending()) << r.what;
    }
}

TEST(MetronomeWatchdog, AStopBeforeThePassMeansNoRestartAndALaterLossStillReopens) {
    ScriptedHost host;
    host.started_now = true;
    Watchdog dog;
    Watchdog::Clock::time_point now{};
    dog.report_lost();
    host.started_now = false;  // the host stops before the watchdog's pass
    now = dog.step(host, now);
    EXPECT_EQ(host.calls, (Calls{"reopening", "open chosen"}));
    host.calls.clear();
    host.started_now = true;  // and starts again; the next loss restarts the click
    dog.report_lost();
    now = dog.step(host, now);
    now = dog.step(host, now);  // one report, one reopen
    EXPECT_EQ(host.calls, (Calls{"reopening", "open chosen", "restart"}));
    EXPECT_EQ(now, Watchdog::Clock::time_point{} + 3 * Watchdog::kPeriod);
}

TEST(MetronomeWatchdog, TheWorkerLoopEndsWhenTold) {
    ScriptedHost host;
    Watchdog dog;
    std::atomic<bool> running{true};
    dog.report_lost();
    std::thread worker([&] { dog.run(host, running); });
    while (dog.lost_pending()) std::this_thread::yield();
    running = false;
    worker.join();
    EXPECT_EQ(host.calls, (Calls{"reopening", "open chosen"}));
}

}  // namespace
