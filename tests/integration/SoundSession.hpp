#pragma once

#include <chrono>
#include <functional>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/SoundFiles.hpp"

namespace tarn::test {

// A private sound server (scripts/sound-session) in a folder of its own, for one test. Its
// variables are exported into this process, so PipeWire clients made here, and the programs it
// starts, talk to it.
class SoundSession {
public:
    SoundSession();
    ~SoundSession();
    SoundSession(const SoundSession&) = delete;
    SoundSession& operator=(const SoundSession&) = delete;

    bool isRunning() const { return running_; }
    const std::string& failure() const { return failure_; }
    const std::filesystem::path& folder() const { return folder_; }

private:
    std::filesystem::path folder_;
    bool running_ = false;
    std::string failure_;
};

// A program running in the background, its output kept in files.
class BackgroundProcess {
public:
    explicit BackgroundProcess(const std::vector<std::string>& arguments);
    ~BackgroundProcess(); // kills what is still running
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool isRunning();
    void signal(int sig);
    // The exit code (-1 when killed by a signal), or none when it still runs after the timeout.
    std::optional<int> waitFor(std::chrono::milliseconds timeout);
    std::string standardOutput() const;
    std::string standardError() const;

private:
    pid_t pid_ = 0;
    std::optional<int> exitCode_;
    std::filesystem::path out_, err_;
};

// Records what reaches a sink (from its monitor) for `seconds` into float samples.
SoundData recordSink(const std::string& sinkUID, int channelCount, double seconds);

// The level in dBFS of a tone in one channel of a recording, after the recorder's own start;
// −200 when the recording is too short to tell.
double toneLevelDb(const SoundData& data, double frequencyHz, int channel = 0);

// Polls `condition` every 20 ms until it holds or the timeout passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

} // namespace tarn::test
