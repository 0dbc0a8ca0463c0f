#include "player/DeckPlayback.hpp"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <random>

#include <fmt/format.h>

#include "core/audio/AudioOutputRenderer.hpp"
#include "core/audio/AudioRingBuffer.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "player/AudioFileDecoder.hpp"
#include "player/Resampler.hpp"

namespace tarn {

namespace {

// The worker's wait when the ring is full: a fraction of the ring's length at any rate.
constexpr auto workerIdle = std::chrono::milliseconds(5);

std::string fileName(const std::filesystem::path& path) { return path.filename().string(); }

std::optional<double> secondsOf(const AudioFileDecoder& decoder) {
    const auto frames = decoder.estimatedFrameCount();
    return frames ? std::optional<double>(double(*frames) / decoder.sampleRate()) : std::nullopt;
}

} // namespace

DeckPlayback::DeckPlayback(AudioPlatform& platform, ChainFactory chainFactory)
    : platform_(platform), chainFactory_(std::move(chainFactory)) {}

DeckPlayback::~DeckPlayback() { stop(); }

void DeckPlayback::setQueue(std::vector<std::filesystem::path> files) {
    stop();
    std::lock_guard lock(mutex_);
    queue_ = std::move(files);
    durations_.assign(queue_.size(), std::nullopt);
    order_.resize(queue_.size());
    std::iota(order_.begin(), order_.end(), 0);
    if (shuffle_) std::shuffle(order_.begin(), order_.end(), std::mt19937{std::random_device{}()});
}

void DeckPlayback::append(std::vector<std::filesystem::path> files) {
    std::lock_guard lock(mutex_);
    for (auto& f : files) {
        order_.push_back(int(queue_.size()));
        queue_.push_back(std::move(f));
        durations_.push_back(std::nullopt);
    }
}

void DeckPlayback::move(int from, int to) {
    std::lock_guard lock(mutex_);
    const int n = int(queue_.size());
    if (from < 0 || from >= n || to < 0 || to >= n || from == to) return;
    auto renumber = [&](int i) {
        if (i == from) return to;
        if (from < to && i > from && i <= to) return i - 1;
        if (to < from && i >= to && i < from) return i + 1;
        return i;
    };
    auto path = std::move(queue_[std::size_t(from)]);
    auto duration = durations_[std::size_t(from)];
    queue_.erase(queue_.begin() + from);
    durations_.erase(durations_.begin() + from);
    queue_.insert(queue_.begin() + to, std::move(path));
    durations_.insert(durations_.begin() + to, duration);
    for (auto& b : boundaries_) b.trackIndex = renumber(b.trackIndex);
    decodingIndex_ = decodingIndex_ >= 0 ? renumber(decodingIndex_) : decodingIndex_;
    if (!shuffle_) std::iota(order_.begin(), order_.end(), 0);
    else for (int& i : order_) i = renumber(i);
}

void DeckPlayback::setShuffle(bool on) {
    std::lock_guard lock(mutex_);
    shuffle_ = on;
    std::iota(order_.begin(), order_.end(), 0);
    if (on) std::shuffle(order_.begin(), order_.end(), std::mt19937{std::random_device{}()});
}

void DeckPlayback::setOutputDevice(std::uint32_t deviceID) {
    if (deviceID == deviceID_) return;
    deviceID_ = deviceID;
    if (!renderer_) return;
    const bool wasPlaying = state_ == State::playing;
    stopOutput();
    renderer_.reset();
    if (wasPlaying) startOutput();
}

void DeckPlayback::note(std::string message) {
    std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
}

int DeckPlayback::orderPosition(int index) const {
    const auto it = std::find(order_.begin(), order_.end(), index);
    return it == order_.end() ? -1 : int(it - order_.begin());
}

// Called with `mutex_` held. `byHand`: Next pressed (repeat-one does not hold it on the track).
std::optional<int> DeckPlayback::nextIndex(int after, bool byHand) const {
    if (order_.empty()) return std::nullopt;
    if (!byHand && repeat_ == Repeat::one && after >= 0) return after;
    const int position = orderPosition(after);
    if (position + 1 < int(order_.size())) return order_[std::size_t(position + 1)];
    if (repeat_ != Repeat::off) return order_.front();
    return std::nullopt;
}

std::uint64_t DeckPlayback::playedFrames() const {
    if (!ring_) return 0;
    return ring_->totalFramesWritten() - std::uint64_t(ring_->availableFramesToRead());
}

// Opens queue entry `index` for the output's start (worker stopped), skipping entries that
// cannot be decoded. The format of what opens decides the output's.
bool DeckPlayback::load(int index, double startSeconds) {
    std::size_t tried = 0;
    std::optional<int> candidate = index;
    while (candidate && tried++ < queue_.size()) {
        std::filesystem::path path;
        {
            std::lock_guard lock(mutex_);
            path = queue_[std::size_t(*candidate)];
        }
        try {
            auto decoder = std::make_unique<AudioFileDecoder>(path);
            const int fileRate = decoder->sampleRate(), channels = decoder->channelCount();
            if (startSeconds > 0) decoder->seek(std::int64_t(startSeconds * fileRate + 0.5));
            const int ringRate = outputRate_ > 0 ? outputRate_ : fileRate;
            auto resampler = fileRate != ringRate ? std::make_unique<Resampler>(channels, fileRate, ringRate) : nullptr;
            if (channels != channelCount_ || !chain_) {
                chain_ = chainFactory_(channels);
                ring_ = std::make_shared<AudioRingBuffer>(channels, ringFrames);
                renderer_.reset();
                sampleRate_ = 0;
            } else if (ring_) {
                ring_->reset();
            }
            if (ringRate != sampleRate_ || !renderer_) {
                renderer_.reset();
                chain_->rebuild(ringRate);
            }
            sampleRate_ = ringRate;
            channelCount_ = channels;
            fileRate_ = fileRate;
            std::lock_guard lock(mutex_);
            durations_[std::size_t(*candidate)] = secondsOf(*decoder);
            decoder_ = std::move(decoder);
            resampler_ = std::move(resampler);
            decodingIndex_ = *candidate;
            boundaries_ = {{ring_->totalFramesWritten(), *candidate, startSeconds}};
            return true;
        } catch (const std::runtime_error& e) {
            note(fmt::format("skipped {}: {}", fileName(path), e.what()));
            std::lock_guard lock(mutex_);
            candidate = nextIndex(*candidate, true);
            startSeconds = 0;
        }
    }
    return false;
}

std::int64_t DeckPlayback::blockRoom() const {
    const double ratio = resampler_ ? double(sampleRate_) / fileRate_ : 1.0;
    return std::int64_t(decodeBlockFrames * ratio) + 64;
}

void DeckPlayback::feed(const float* interleaved, int frames) {
    if (!resampler_) {
        ring_->write(interleaved, frames);
        return;
    }
    const auto& converted = resampler_->process(interleaved, frames);
    ring_->write(converted.data(), std::int64_t(converted.size()) / channelCount_);
}

void DeckPlayback::startOutput() {
    if (!renderer_) renderer_ = std::make_unique<AudioOutputRenderer>(platform_, deviceID_, chain_, ring_, RouteDSPStage::render);
    try {
        renderer_->start(sampleRate_);
    } catch (...) {
        state_ = State::stopped;
        throw;
    }
    state_ = State::playing;
}

void DeckPlayback::stopOutput() {
    if (renderer_) renderer_->stop();
}

void DeckPlayback::startWorker() {
    stopRequested_ = false;
    queueEnded_ = false;
    formatChangeIndex_ = -1;
    // A first stretch before the output starts, so its first cycles never run dry.
    std::vector<float> block(std::size_t(decodeBlockFrames) * std::size_t(channelCount_));
    int prefilled = 0;
    try {
        while (prefilled < prefillFrames && ring_->availableFramesToWrite() >= blockRoom()) {
            const int n = decoder_->read(block.data(), decodeBlockFrames);
            if (n <= 0) break;
            feed(block.data(), n);
            prefilled += n;
        }
    } catch (const std::runtime_error&) {
        // The worker meets the same damage at once and skips the file with its message.
    }
    worker_ = std::thread([this] { decodeLoop(); });
}

void DeckPlayback::stopWorker() {
    stopRequested_ = true;
    if (worker_.joinable()) worker_.join();
}

void DeckPlayback::decodeLoop() {
    std::vector<float> block(std::size_t(decodeBlockFrames) * std::size_t(channelCount_));
    while (!stopRequested_) {
        if (ring_->availableFramesToWrite() < blockRoom()) {
            std::this_thread::sleep_for(workerIdle);
            continue;
        }
        int n = 0;
        try {
            n = decoder_->read(block.data(), decodeBlockFrames);
            if (n > 0) feed(block.data(), n);
        } catch (const std::runtime_error& e) {
            note(fmt::format("skipped the rest of {}: {}", fileName(decoder_->path()), e.what()));
            n = 0;
        }
        if (n > 0) continue;
        // The track is over: the next one goes straight after it in the ring when it has the
        // same format; otherwise the output restarts for it once this one has played out.
        std::optional<int> next;
        {
            std::lock_guard lock(mutex_);
            next = nextIndex(decodingIndex_, false);
        }
        std::size_t tried = 0;
        while (next && !stopRequested_) {
            std::filesystem::path path;
            {
                std::lock_guard lock(mutex_);
                if (tried++ > queue_.size()) {
                    next.reset();
                    break;
                }
                path = queue_[std::size_t(*next)];
            }
            try {
                auto decoder = std::make_unique<AudioFileDecoder>(path);
                // Another channel count needs another output; another rate only another resampler
                // (the one that ends gives what it still holds first), unless the ring's rate came
                // from the files alone.
                if (decoder->channelCount() != channelCount_ ||
                    (decoder->sampleRate() != fileRate_ && outputRate_ == 0)) {
                    formatChangeIndex_ = *next;
                    return;
                }
                if (decoder->sampleRate() != fileRate_) {
                    if (resampler_) feed(nullptr, 0);
                    resampler_ = decoder->sampleRate() != sampleRate_
                                     ? std::make_unique<Resampler>(channelCount_, decoder->sampleRate(), sampleRate_)
                                     : nullptr;
                    fileRate_ = decoder->sampleRate();
                }
                std::lock_guard lock(mutex_);
                durations_[std::size_t(*next)] = secondsOf(*decoder);
                decoder_ = std::move(decoder);
                decodingIndex_ = *next;
                boundaries_.push_back({ring_->totalFramesWritten(), *next, 0});
                break;
            } catch (const std::runtime_error& e) {
                note(fmt::format("skipped {}: {}", fileName(path), e.what()));
                std::lock_guard lock(mutex_);
                next = nextIndex(*next, true);
            }
        }
        if (!next) {
            if (resampler_) feed(nullptr, 0);
            queueEnded_ = true;
            return;
        }
    }
}

bool DeckPlayback::play(std::optional<int> index) {
    if (!index && state_ == State::paused) {
        startOutput();
        return true;
    }
    if (!index && state_ == State::playing) return true;
    stop();
    int start = 0;
    {
        std::lock_guard lock(mutex_);
        if (queue_.empty()) return false;
        start = index ? std::clamp(*index, 0, int(queue_.size()) - 1) : order_.front();
    }
    if (!load(start, 0.0)) return false;
    if (outputRate_ == 0 && !graphRateAsked_) {
        // Before the first sound: the server's graph rate, so that a file of another rate is
        // converted from its first frame instead of playing at the wrong speed for a moment.
        learnGraphRate();
        if (outputRate_ != 0 && outputRate_ != sampleRate_ && !load(start, 0.0)) return false;
    }
    startWorker();
    startOutput();
    return true;
}

// Runs the output on an empty ring (silence) until the server reports the graph's rate, a few
// cycles at most; a platform that never says is asked once.
void DeckPlayback::learnGraphRate() {
    graphRateAsked_ = true;
    ring_->reset();
    startOutput();
    const auto until = std::chrono::steady_clock::now() + graphRateWait;
    std::optional<double> rate;
    while (!(rate = renderer_->graphRate()) && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    stopOutput();
    renderer_.reset();
    state_ = State::stopped;
    if (rate && *rate > 0) outputRate_ = int(*rate);
}

void DeckPlayback::pause() {
    if (state_ != State::playing) return;
    stopOutput();
    state_ = State::paused;
}

void DeckPlayback::stop() {
    stopOutput();
    stopWorker();
    if (ring_) ring_->reset();
    decoder_.reset();
    resampler_.reset();
    std::lock_guard lock(mutex_);
    boundaries_.clear();
    decodingIndex_ = -1;
    state_ = State::stopped;
}

bool DeckPlayback::next() {
    const int current = status().trackIndex;
    std::optional<int> target;
    {
        std::lock_guard lock(mutex_);
        target = nextIndex(current, true);
    }
    if (!target) return false;
    const bool wasPaused = state_ == State::paused;
    const bool started = play(*target);
    if (started && wasPaused) pause();
    return started;
}

bool DeckPlayback::previous() {
    const Status now = status();
    if (now.trackIndex < 0) return false;
    if (now.positionSeconds > previousRestartsAfterSeconds) {
        seek(0);
        return true;
    }
    int target = now.trackIndex;
    {
        std::lock_guard lock(mutex_);
        const int position = orderPosition(now.trackIndex);
        if (position > 0) target = order_[std::size_t(position - 1)];
        else if (repeat_ == Repeat::all) target = order_.back();
    }
    const bool wasPaused = state_ == State::paused;
    const bool started = play(target);
    if (started && wasPaused) pause();
    return started;
}

void DeckPlayback::seek(double seconds) {
    const Status now = status();
    if (now.trackIndex < 0) return;
    seconds = std::max(seconds, 0.0);
    if (now.durationSeconds > 0) seconds = std::min(seconds, now.durationSeconds);
    restartAt(now.trackIndex, seconds);
}

// The same track from `seconds`, the output as it was (playing or paused).
void DeckPlayback::restartAt(int index, double seconds) {
    const State was = state_;
    stopOutput();
    stopWorker();
    if (!load(index, seconds)) {
        stop();
        return;
    }
    startWorker();
    if (was == State::playing) startOutput();
    else state_ = State::paused;
}

DeckPlayback::Status DeckPlayback::status() const {
    Status s;
    s.state = state_;
    s.sampleRate = sampleRate_;
    s.channelCount = channelCount_;
    std::lock_guard lock(mutex_);
    if (boundaries_.empty() || sampleRate_ <= 0) return s;
    const std::uint64_t played = playedFrames();
    const Boundary* current = &boundaries_.front();
    for (const auto& b : boundaries_)
        if (b.ringFrame <= played) current = &b;
    s.trackIndex = current->trackIndex;
    s.positionSeconds = current->startSeconds + double(played - current->ringFrame) / sampleRate_;
    if (current->trackIndex >= 0 && std::size_t(current->trackIndex) < durations_.size() && durations_[std::size_t(current->trackIndex)])
        s.durationSeconds = *durations_[std::size_t(current->trackIndex)];
    return s;
}

std::vector<std::string> DeckPlayback::poll() {
    // The server runs the graph at another rate than the ring: the same place again, resampled.
    if (renderer_ && state_ == State::playing)
        if (auto graph = renderer_->graphRate(); graph && int(*graph) != sampleRate_ && *graph > 0) {
            outputRate_ = int(*graph);
            const Status now = status();
            if (now.trackIndex >= 0) restartAt(now.trackIndex, now.positionSeconds);
        }
    const bool playedOut = ring_ && ring_->availableFramesToRead() == 0;
    if (state_ == State::playing && playedOut && formatChangeIndex_ >= 0) {
        const int next = formatChangeIndex_;
        play(next);
    } else if (state_ == State::playing && playedOut && queueEnded_) {
        stop();
    }
    if (renderer_ && state_ == State::playing) {
        if (auto why = renderer_->interruption()) {
            note("the output stopped: " + *why);
            stop();
        }
    }
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

} // namespace tarn
