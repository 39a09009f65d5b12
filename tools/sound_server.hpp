// A private sound server for machines without sound hardware (a fresh
// server install, a container, CI): a PulseAudio server with one null sink
// whose monitor is the default input, so whatever the program plays it can
// also record. Linux only; elsewhere start() says it is not available.
#pragma once

#include <memory>
#include <string>

namespace cli {

// True when the machine has a sound card or a sound server the program can
// reach already (always true outside Linux, where the system provides one).
bool sound_system_available();

class PrivateSoundServer {
public:
    // Starts the server and points this process's audio clients at it (they
    // must be created afterwards). A Failure says why it could not start.
    static std::unique_ptr<PrivateSoundServer> start();
    // Stops the server, forgets it in the environment, removes its files.
    ~PrivateSoundServer();
    PrivateSoundServer(const PrivateSoundServer&) = delete;
    PrivateSoundServer& operator=(const PrivateSoundServer&) = delete;

    const std::string& directory() const { return dir_; }

private:
    PrivateSoundServer(std::string dir, long pid) : dir_(std::move(dir)), pid_(pid) {}
    std::string dir_;
    long pid_;
    bool keep_files_ = false;  // its log explains a failed start
};

}  // namespace cli
