// Writes the starting corpus of fuzz_id_text into the directory given as
// the only argument: well-formed ids of several lengths and cases, and a
// few malformed texts.
#include <string>

#include "seed_bytes.hpp"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string texts[] = {"00", "0a", "DEADbeef", "616c73615f696e707574", std::string(512, 'f'),
                                 std::string(514, '1'), "abc", "zz", "0a00", ""};
    int i = 0;
    for (const auto& t : texts) {
        if (!seeds::write_seed(argv[1], "id" + std::to_string(i++), seeds::Bytes(t.begin(), t.end()))) return 1;
    }
    return 0;
}
