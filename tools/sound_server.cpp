#include "sound_server.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "cli.hpp"
#include "woodshed/recorder.h"

#if defined(__linux__)
#  include <fcntl.h>
#  include <signal.h>
#  include <sys/prctl.h>
#  include <sys/stat.h>
#  include <sys/wait.h>
#  include <unistd.h>
extern char** environ;
#endif

namespace cli {

#if defined(__linux__)
namespace {

constexpr int32_t kPulseBackend = 7;  // the audio library's number for PulseAudio

// The back end the library's recorder settles on, or -1 when none initialises.
int32_t library_backend() {
    if (sd_create() != ws_ok) return -1;
    const int32_t backend = sd_backend();
    sd_destroy();
    return backend;
}

bool has_sound_cards() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/snd", ec)) {
        if (entry.path().filename().string().rfind("pcmC", 0) == 0) return true;
    }
    return false;
}

void write_text(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    if (!out.flush()) throw Failure("cannot write '" + path.string() + "'");
}

// Waits up to `ms` for the child to end; true when it has.
bool reaped(pid_t pid, int ms) {
    for (int waited = 0; waited <= ms; waited += 10) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

bool sound_system_available() {
    // A server the user chose, a running server, or a card for the fallbacks.
    if (std::getenv("PULSE_SERVER") != nullptr) return true;
    return library_backend() == kPulseBackend || has_sound_cards();
}

std::unique_ptr<PrivateSoundServer> PrivateSoundServer::start() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/woodshed-sound-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw Failure("cannot create a directory for the private sound server: " + std::string(std::strerror(errno)));
    }
    const std::filesystem::path dir(pattern);
    struct Cleanup {
        std::filesystem::path dir;
        bool keep = false;
        ~Cleanup() {
            std::error_code ec;
            if (!keep) std::filesystem::remove_all(dir, ec);
        }
    } cleanup{dir};

    std::filesystem::create_directory(dir / "home");
    mkdir((dir / "runtime").c_str(), 0700);
    const std::string socket = (dir / "runtime" / "native").string();
    // The sink first: once the socket answers, the sink is there. It runs
    // at what desktop sound servers and system mixers run at, unless
    // WOODSHED_SINK_RATE asks for another rate (for trying the demo at
    // 44100 Hz, say).
    uint32_t rate = 48000;
    if (const char* asked = std::getenv("WOODSHED_SINK_RATE")) {
        const long r = std::strtol(asked, nullptr, 10);
        if (r < 8000 || r > 384000) throw Failure("WOODSHED_SINK_RATE: a rate from 8000 to 384000 Hz, not '" + std::string(asked) + "'");
        rate = static_cast<uint32_t>(r);
    }
    write_text(dir / "server.pa",
               "load-module module-null-sink sink_name=woodshed_demo rate=" + std::to_string(rate) +
               " channels=2 format=float32le "
               "sink_properties=device.description=Woodshed_private_sink\n"
               "set-default-sink woodshed_demo\n"
               "set-default-source woodshed_demo.monitor\n"
               "load-module module-native-protocol-unix auth-anonymous=1 socket=" + socket + "\n");
    write_text(dir / "client.conf", "autospawn = no\n");

    // Everything the child needs is made before fork: after it, only calls
    // that are safe in a child of a threaded process.
    std::vector<std::string> args = {
        "pulseaudio", "-n", "-F", (dir / "server.pa").string(), "--daemonize=no", "--use-pid-file=no",
        "--exit-idle-time=-1", "--disallow-exit", "--log-target=file:" + (dir / "pulse.log").string(),
        "--log-level=notice"};
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string_view v(*e);
        if (v.starts_with("HOME=") || v.starts_with("XDG_RUNTIME_DIR=") || v.starts_with("PULSE_")) continue;
        env.emplace_back(v);
    }
    env.push_back("HOME=" + (dir / "home").string());
    env.push_back("XDG_RUNTIME_DIR=" + (dir / "runtime").string());
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) throw Failure("cannot start the private sound server: " + std::string(std::strerror(errno)));
    if (pid == 0) {
        // Dies with us, and stays out of our process group so that Ctrl-C
        // reaches only us: we stop it ourselves once the engines are closed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        setpgid(0, 0);
        const int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
        }
        execvpe("pulseaudio", argv.data(), envp.data());
        _exit(127);
    }
    std::unique_ptr<PrivateSoundServer> server(new PrivateSoundServer(dir.string(), pid));
    cleanup.keep = true;  // the server owns the directory now

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::error_code ec;
    while (!std::filesystem::exists(socket, ec)) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            server->pid_ = -1;
            if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
                // exec failed: the server's files are of no interest.
                throw Failure("no sound hardware, and no 'pulseaudio' to run a private sound server "
                              "(scripts/setup.sh installs it)");
            }
            server->keep_files_ = true;
            throw Failure("the private sound server stopped at once (see " + (dir / "pulse.log").string() + ")");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            server->keep_files_ = true;
            throw Failure("the private sound server did not answer (see " + (dir / "pulse.log").string() + ")");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    setenv("PULSE_CLIENTCONFIG", (dir / "client.conf").c_str(), 1);
    setenv("PULSE_COOKIE", (dir / "cookie").c_str(), 1);
    // A null sink follows its most demanding stream down to a few
    // milliseconds of buffer, and on a busy machine the stream then runs dry
    // now and then, which moves a take's round trip in mid-take. The
    // server's clients here are ours alone: give them slack.
    setenv("PULSE_LATENCY_MSEC", "60", 1);
    // The socket exists a moment before the server accepts on it.
    while (library_backend() != kPulseBackend) {
        if (std::chrono::steady_clock::now() > deadline) {
            server->keep_files_ = true;
            throw Failure("the private sound server did not answer (see " + (dir / "pulse.log").string() + ")");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return server;
}

PrivateSoundServer::~PrivateSoundServer() {
    if (pid_ > 0) {
        const auto pid = static_cast<pid_t>(pid_);
        kill(pid, SIGTERM);
        if (!reaped(pid, 3000)) {
            kill(pid, SIGKILL);
            reaped(pid, 1000);
        }
    }
    unsetenv("PULSE_SERVER");
    unsetenv("PULSE_CLIENTCONFIG");
    unsetenv("PULSE_COOKIE");
    unsetenv("PULSE_LATENCY_MSEC");
    std::error_code ec;
    if (!keep_files_) std::filesystem::remove_all(dir_, ec);
}

#else

bool sound_system_available() { return true; }

std::unique_ptr<PrivateSoundServer> PrivateSoundServer::start() {
    throw Failure("no audio device is available, and a private sound server runs only on Linux");
}

PrivateSoundServer::~PrivateSoundServer() = default;

#endif

}  // namespace cli
