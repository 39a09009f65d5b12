// ta_analyze and ta_clean on files made of arbitrary bytes, with arbitrary
// arguments: the take loader's file path and every argument check. Input:
// 16 argument bytes (offset, minimum and maximum delay in ms, delay in
// frames as a sign and a power of two plus low bits), a flag byte (bit 0:
// pass one file as both), then the reference file's bytes up to the first
// "|||" and the take file's after it. Besides the sanitizers' checks it
// aborts when a result code is not one the headers promise, a failed call
// leaves anything in its record, or a failed ta_clean changes the take or
// leaves its temporary behind.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "woodshed/takes.h"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_take_tools: broken invariant: %s\n", what);
    std::abort();
}

int32_t i32(const uint8_t* p) {
    uint32_t v = 0;
    std::memcpy(&v, p, 4);
    return static_cast<int32_t>(v);
}

void put(const std::string& path, const uint8_t* data, size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    check(f != nullptr, "scratch file");
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
}

std::vector<uint8_t> get(const std::string& path) {
    std::vector<uint8_t> out;
    if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
        uint8_t buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
        std::fclose(f);
    }
    return out;
}

template <class Record>
bool zero(const Record& r) {
    const Record z{};
    return std::memcmp(&r, &z, sizeof r) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 17) return 0;
    static const std::string dir = [] {
        std::string d = "/tmp/fuzz-take-tools-" + std::to_string(::getpid());
        ::mkdir(d.c_str(), 0700);
        return d;
    }();
    const std::string ref = dir + "/ref.wav", take = dir + "/take.wav";
    const int32_t offset = i32(data), lo = i32(data + 4), hi = i32(data + 8);
    // Delays from small to beyond the +-2^40 limit, either sign.
    const int64_t magnitude = (int64_t{1} << (data[12] % 63)) + (i32(data + 12) >> 8 & 0xFFFF);
    const int64_t delay = (data[15] & 1) ? -magnitude : magnitude;
    const bool same = (data[16] & 1) != 0;
    const uint8_t* files = data + 17;
    const size_t rest = size - 17;
    const uint8_t* cut = static_cast<const uint8_t*>(memmem(files, rest, "|||", 3));
    const size_t ref_size = cut != nullptr ? static_cast<size_t>(cut - files) : rest / 2;
    const size_t take_from = cut != nullptr ? ref_size + 3 : ref_size;
    put(ref, files, ref_size);
    put(take, files + take_from, rest - take_from);
    const char* ref_path = same ? take.c_str() : ref.c_str();

    TakeAnalysis a;
    std::memset(&a, 0xA5, sizeof a);
    const int32_t ra = ta_analyze(ref_path, take.c_str(), offset, lo, hi, &a);
    check(ra == 0 || ra == -3 || ra == -14, "ta_analyze code");
    check(ra == 0 || zero(a), "ta_analyze record after a failure");
    check(!same || ra == -3, "ta_analyze took one file as both");

    const std::vector<uint8_t> before = get(take);
    TakeCleaning c;
    std::memset(&c, 0xA5, sizeof c);
    const int32_t rc = ta_clean(ref_path, take.c_str(), offset, delay, &c);
    check(rc == 0 || rc == -3 || rc == -14, "ta_clean code");
    check(rc == 0 || zero(c), "ta_clean record after a failure");
    check(rc == 0 || get(take) == before, "a failed ta_clean changed the take");
    check(!same || rc == -3, "ta_clean took one file as both");
    check((delay >= -(int64_t{1} << 40) && delay <= (int64_t{1} << 40)) || rc == -3, "delay limit");
    check(::access((take + ".tawtmp").c_str(), F_OK) != 0, "temporary left behind");
    return 0;
}
