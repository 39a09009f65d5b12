// The live tuner on the private sound server (scripts/pulse-server.sh):
//  - latency: a tone starts in the null sink; how long until the tuner reads
//    it in tune. Reported two ways: wall clock from the tone's first period
//    handed to the server, and stream time from the first captured frame that
//    carries the tone (the window end of the first loud reading, less one
//    hop) to the first in-tune reading, plus the worker's polling delay.
//  - CPU: process CPU time per second of 48 kHz capture with the default
//    configuration (worker, capture callback and the sound-server client
//    together, so an upper bound for the worker alone).
#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <unistd.h>

#include <dirent.h>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "sound_server.hpp"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

double cpu_seconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// CPU ticks (user + system) of each thread of this process.
std::map<int, long> thread_ticks() {
    std::map<int, long> out;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            std::ifstream f(std::string("/proc/self/task/") + e->d_name + "/stat");
            std::string line;
            std::getline(f, line);
            const auto close = line.rfind(')');
            if (close == std::string::npos) continue;
            std::istringstream rest(line.substr(close + 2));
            std::string field;
            long utime = 0, stime = 0;
            for (int i = 3; i <= 15 && rest >> field; ++i) {
                if (i == 14) utime = std::stol(field);
                if (i == 15) stime = std::stol(field);
            }
            out[std::atoi(e->d_name)] = utime + stime;
        }
        closedir(d);
    }
    return out;
}

void report(benchmark::State& state, const char* prefix, std::vector<double> v) {
    if (v.empty()) return;
    std::sort(v.begin(), v.end());
    const std::string p(prefix);
    state.counters[p + "_median_ms"] = v[v.size() / 2];
    state.counters[p + "_min_ms"] = v.front();
    state.counters[p + "_p90_ms"] = v[v.size() * 9 / 10];
    state.counters[p + "_max_ms"] = v.back();
}

void BM_LatencyToInTune(benchmark::State& state) {
    if (!ws::test::sound_server_expected()) {
        state.SkipWithError("no test sound server");
        return;
    }
    tn_engine_create(nullptr);
    tn_engine_start(nullptr);
    std::vector<double> wall, stream;
    for (auto _ : state) {
        for (int trial = 0; trial < 20; ++trial) {
            ws::test::TonePlayer tone;
            std::this_thread::sleep_for(300ms);  // silence: the tracker forgets the last note
            const auto t0 = clock_type::now();
            tone.start(trial % 2 ? 196.0 : 246.94);
            const int note = trial % 2 ? 55 : 59;
            uint64_t onset_us = 0;
            TunerReading r{};
            while (clock_type::now() - t0 < 3s) {
                if (tn_engine_get_reading(&r) == 1) {
                    if (onset_us == 0 && r.level_db > -40.0) onset_us = r.time_us;
                    if (r.note == note && r.state == tn_state_in_tune) break;
                }
                std::this_thread::sleep_for(500us);
            }
            const auto t1 = clock_type::now();
            if (r.note != note || r.state != tn_state_in_tune) continue;
            wall.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
            // The first loud window ends up to one hop (21.3 ms) after the onset.
            stream.push_back((double(r.time_us) - double(onset_us)) / 1000.0 + 21.3);
        }
    }
    tn_engine_destroy();
    report(state, "wall", wall);
    report(state, "stream", stream);
    state.counters["trials"] = double(wall.size());
}
BENCHMARK(BM_LatencyToInTune)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CpuPerSecondOfAudio(benchmark::State& state) {
    if (!ws::test::sound_server_expected()) {
        state.SkipWithError("no test sound server");
        return;
    }
    // The process total includes the tone player's playback device; the
    // worker is told apart as the one thread that create starts.
    ws::test::TonePlayer tone;
    tone.start(220.0);
    const auto before_create = thread_ticks();
    tn_engine_create(nullptr);
    const auto after_create = thread_ticks();
    tn_engine_start(nullptr);
    std::this_thread::sleep_for(500ms);
    double used = 0.0, seconds = 0.0, worker = 0.0;
    int worker_tid = 0;
    for (const auto& [tid, ticks] : after_create) {
        if (!before_create.count(tid)) worker_tid = tid;  // the one thread create starts
    }
    for (auto _ : state) {
        const double c0 = cpu_seconds();
        const auto w0 = thread_ticks()[worker_tid];
        const auto t0 = clock_type::now();
        std::this_thread::sleep_for(10s);
        used += cpu_seconds() - c0;
        worker += double(thread_ticks()[worker_tid] - w0) / double(sysconf(_SC_CLK_TCK));
        seconds += std::chrono::duration<double>(clock_type::now() - t0).count();
    }
    tn_engine_destroy();
    state.counters["process_cpu_percent"] = 100.0 * used / seconds;
    state.counters["worker_cpu_percent"] = 100.0 * worker / seconds;
}
BENCHMARK(BM_CpuPerSecondOfAudio)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
