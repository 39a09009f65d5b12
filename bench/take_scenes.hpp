// Seeded takes with a known answer, built the way real ones come about: a
// music-like backing (drums, bass, chords) plays through a room (direct
// path, a few early reflections, an exponentially decaying diffuse tail)
// into the microphone, a musician plays an independent melodic line with
// rests over it, white noise sits under everything, and the take is
// quantised to 16 bits. The take's clock may drift against the backing, and
// its round trip may jump at given points (frames dropped on capture).
// Used by the cleaning benchmark and by the cleaning tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ws::bench {

struct SceneSetup {
    double rate = 44100.0;
    double seconds = 60.0;
    double rt60 = 0.5;            // reverberation time of the room, s
    double room_seconds = 0.7;    // length of the room's response, s
    double leak_rms = 0.08;       // the leak's level in the take (full scale 1)
    double musician_db = 10.0;    // musician relative to the leak; <= -200 for none
    double noise_rms = 0.001;     // white noise (-60 dBFS)
    double drift_ppm = 0.0;       // > 0: the take's clock runs fast
    int64_t delay = 1234;         // round trip at the start, frames
    struct Jump { double at; int64_t size; };  // at: fraction of the take
    std::vector<Jump> jumps;
    unsigned seed = 1;
};

struct Scene {
    std::vector<float> backing;   // the reference, as its file holds it (16-bit values)
    std::vector<float> take;      // what was recorded, 16-bit values
    std::vector<float> leak;      // the backing as the microphone heard it
    std::vector<float> musician;  // the musician alone
    std::vector<int64_t> jump_frames;  // take frames where the round trip changes
};

Scene make_scene(const SceneSetup& setup);

// Backing or musician alone (the pieces of make_scene), peak about 0.5.
std::vector<float> backing_music(size_t n, double rate, unsigned seed);
std::vector<float> melody(size_t n, double rate, unsigned seed);

// The room: response of `seconds` with its direct path at tap 0.
std::vector<float> room(double rate, double rt60, double seconds, unsigned seed);

// Linear convolution, the length of x, by overlap-add transforms.
std::vector<float> fast_convolve(const std::vector<float>& x, const std::vector<float>& h);

double energy(const float* x, size_t n);

// 10 log10(E(leak) / E(out - musician)): how far below the leak what is left
// of it (and the noise) lies; and the musician's least-squares gain in out, dB.
struct Outcome { double reduction_db; double gain_db; };
Outcome judge(const Scene& scene, const std::vector<float>& out);

// A mono 16-bit file of x (values already on the 16-bit grid stay exact).
bool write_wav16(const std::string& path, const std::vector<float>& x, uint32_t rate);
std::vector<float> read_wav16(const std::string& path);

}  // namespace ws::bench
