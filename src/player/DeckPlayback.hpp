#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/audio/AudioPlatform.hpp"

namespace tarn {

class AudioFileDecoder;
class AudioOutputRenderer;
class AudioRingBuffer;
class Resampler;
class RouteDSPChain;

// The player deck's sound: a queue of local files decoded on a worker thread into a ring, and a
// renderer that runs the route's chain on the ring and plays it on one output device. The ring
// runs at the rate the output's graph runs at: a file of that rate plays bit for bit, another is
// resampled on the worker (the first file sets the rate until the server says what it runs at).
// Tracks follow each other in the ring with nothing in between (gapless); a change of channel
// count restarts the output between the two tracks.
// A file that cannot be decoded is skipped, with a message, and the queue goes on.
//
// Control thread only, except the worker it owns. The owner calls `poll()` a few times a second
// while playing: it moves to the next format, notices the end of the queue and collects messages.
class DeckPlayback {
public:
    enum class State { stopped, playing, paused };
    enum class Repeat { off, all, one };

    struct Status {
        State state = State::stopped;
        int trackIndex = -1; // in the queue; -1 when nothing is loaded
        double positionSeconds = 0;
        double durationSeconds = 0; // 0 when the file does not say
        int sampleRate = 0;
        int channelCount = 0;
    };

    // Makes the route's chain for a channel count, with the route's settings; the deck builds it
    // at the file's rate. Called again when the channel count changes.
    using ChainFactory = std::function<std::shared_ptr<RouteDSPChain>(int channelCount)>;

    // Frames decoded ahead of the output: enough to ride out a slow disk, short enough that a
    // pause, seek or edit is heard at once.
    static constexpr std::int64_t ringFrames = 32768;
    static constexpr int decodeBlockFrames = 4096;
    // Decoded before the output starts, so the first cycles never run dry.
    static constexpr int prefillFrames = 8192;
    // How long the first play waits for the server to say its graph's rate.
    static constexpr std::chrono::milliseconds graphRateWait{250};
    // Previous within this much of a track's start goes to the track before; later, to its start.
    static constexpr double previousRestartsAfterSeconds = 3.0;

    DeckPlayback(AudioPlatform& platform, ChainFactory chainFactory);
    ~DeckPlayback();
    DeckPlayback(const DeckPlayback&) = delete;
    DeckPlayback& operator=(const DeckPlayback&) = delete;

    // The queue replaces the old one and stops playback.
    void setQueue(std::vector<std::filesystem::path> files);
    void append(std::vector<std::filesystem::path> files);
    const std::vector<std::filesystem::path>& queue() const { return queue_; }
    // Moves one entry; the playing track keeps playing.
    void move(int from, int to);

    // The device the deck plays on; a running output moves to it.
    void setOutputDevice(std::uint32_t deviceID);
    std::uint32_t outputDevice() const { return deviceID_; }

    // Plays from the start of queue entry `index`, or resumes (no index while paused), or starts
    // the queue from its first entry. Throws AudioOutputRenderer::StartError when the device
    // refuses the output (the deck is stopped then). False when no entry of the queue can be played.
    bool play(std::optional<int> index = std::nullopt);
    void pause();
    void stop();
    bool next();
    bool previous();
    // Seconds into the current track (clamped to it). Keeps playing or paused as it was.
    void seek(double seconds);
    void setRepeat(Repeat repeat) { repeat_ = repeat; }
    Repeat repeat() const { return repeat_.load(); }
    // Shuffle plays the queue in a random order, each entry once per round.
    void setShuffle(bool on);
    bool shuffle() const { return shuffle_; }

    Status status() const;
    // Moves on to the next format or the end of the queue once the output has played what was
    // decoded; returns the messages (skipped files, a stopped output) since the last poll.
    std::vector<std::string> poll();

    // The chain the output runs (null before the first play): edits go to it.
    const std::shared_ptr<RouteDSPChain>& chain() const { return chain_; }

private:
    struct Boundary {
        std::uint64_t ringFrame; // the ring's running total where the track's audio begins
        int trackIndex;
        double startSeconds;     // where in the track that is
    };

    bool load(int index, double startSeconds);
    // Hands decoded frames to the ring, through the resampler when the file's rate is not the ring's.
    void feed(const float* interleaved, int frames);
    // Room the ring needs for one decoded block once resampled.
    std::int64_t blockRoom() const;
    void restartAt(int index, double seconds);
    void learnGraphRate();
    void startWorker();
    void stopWorker();
    void startOutput();
    void stopOutput();
    void decodeLoop();
    std::optional<int> nextIndex(int after, bool byHand) const;
    int orderPosition(int index) const;
    std::uint64_t playedFrames() const;
    void note(std::string message);

    AudioPlatform& platform_;
    ChainFactory chainFactory_;
    std::uint32_t deviceID_ = 0;
    // The queue and its order are read by the worker too (under `mutex_`).
    std::vector<std::filesystem::path> queue_;
    std::vector<int> order_; // play order: the queue's indices, shuffled or not
    std::atomic<Repeat> repeat_{Repeat::off};
    bool shuffle_ = false;
    State state_ = State::stopped;

    int sampleRate_ = 0;   // the ring's and the output's rate
    int channelCount_ = 0;
    int fileRate_ = 0;     // the rate of the file being decoded (the worker's while it runs)
    // The graph's rate once the server has said it; until then the first file's.
    int outputRate_ = 0;
    bool graphRateAsked_ = false;
    std::shared_ptr<RouteDSPChain> chain_;
    std::shared_ptr<AudioRingBuffer> ring_;
    std::unique_ptr<AudioOutputRenderer> renderer_;

    // Shared with the worker.
    std::unique_ptr<AudioFileDecoder> decoder_; // the worker's while it runs
    std::unique_ptr<Resampler> resampler_;     // likewise; none when the rates agree
    int decodingIndex_ = -1;
    std::thread worker_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> queueEnded_{false};
    std::atomic<int> formatChangeIndex_{-1};
    mutable std::mutex mutex_; // boundaries, messages, durations
    std::vector<Boundary> boundaries_;
    std::vector<std::string> messages_;
    std::vector<std::optional<double>> durations_; // seconds, per queue entry, once opened
};

} // namespace tarn
