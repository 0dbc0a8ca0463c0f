#include "SoundSession.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ProcessRunner.hpp"

extern char** environ;

namespace tarn::test {

namespace {

const std::string sessionScript = std::string(TARN_SOURCE_DIR) + "/scripts/sound-session";

std::string readAll(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::filesystem::path uniqueFolder(const std::string& stem) {
    std::string pattern = (std::filesystem::temp_directory_path() / (stem + "-XXXXXX")).string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary folder");
    return pattern;
}

} // namespace

SoundSession::SoundSession() : folder_(uniqueFolder("tarn-sound-session")) {
    ::setenv("TARN_SOUND_SESSION_DIR", folder_.c_str(), 1);
    auto started = runProcess({sessionScript, "start"});
    if (started.exitCode != 0) {
        failure_ = "sound-session start failed: " + started.standardError;
        return;
    }
    auto env = runProcess({sessionScript, "env"});
    std::istringstream lines(env.standardOutput);
    for (std::string line; std::getline(lines, line);) {
        // export NAME=value (the script quotes with %q; our folders need no quoting)
        auto eq = line.find('=');
        if (line.rfind("export ", 0) != 0 || eq == std::string::npos) continue;
        ::setenv(line.substr(7, eq - 7).c_str(), line.substr(eq + 1).c_str(), 1);
    }
    running_ = true;
}

SoundSession::~SoundSession() {
    runProcess({sessionScript, "stop"});
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& arguments) {
    auto folder = uniqueFolder("tarn-background");
    out_ = folder / "stdout";
    err_ = folder / "stderr";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&actions);
}

BackgroundProcess::~BackgroundProcess() {
    if (isRunning()) {
        signal(SIGKILL);
        waitFor(std::chrono::seconds(5));
    }
    std::error_code ignored;
    std::filesystem::remove_all(out_.parent_path(), ignored);
}

bool BackgroundProcess::isRunning() {
    if (pid_ <= 0 || exitCode_) return false;
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
    }
    return r == 0;
}

void BackgroundProcess::signal(int sig) {
    if (isRunning()) ::kill(pid_, sig);
}

std::optional<int> BackgroundProcess::waitFor(std::chrono::milliseconds timeout) {
    eventually([&] { return !isRunning(); }, timeout);
    return exitCode_;
}

std::string BackgroundProcess::standardOutput() const { return readAll(out_); }
std::string BackgroundProcess::standardError() const { return readAll(err_); }

SoundData recordSink(const std::string& sinkUID, int channelCount, double seconds) {
    auto folder = uniqueFolder("tarn-recording");
    auto path = folder / "monitor.wav";
    {
        BackgroundProcess recorder({"pw-record", "-P", "{ stream.capture.sink = true }", "--target", sinkUID,
                                    "--rate", "48000", "--channels", std::to_string(channelCount), "--format",
                                    "f32", path.string()});
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        recorder.signal(SIGINT);
        if (!recorder.waitFor(std::chrono::seconds(5))) recorder.signal(SIGKILL);
    }
    SoundData data;
    try {
        data = readSoundFile(path);
    } catch (...) {
        data = {};
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return data;
}

double toneLevelDb(const SoundData& data, double frequencyHz, int channel) {
    // The recorder's first 200 ms hold its own start.
    const std::size_t first = std::min<std::size_t>(data.frameCount(), 9600);
    const std::size_t count = data.frameCount() - first;
    if (count < 4800) return -200.0;
    const double amplitude = toneAmplitude(data, channel, frequencyHz, first, count);
    return amplitude > 0 ? 20.0 * std::log10(amplitude) : -200.0;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

} // namespace tarn::test
