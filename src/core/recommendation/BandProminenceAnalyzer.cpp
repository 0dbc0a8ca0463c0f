#include "core/recommendation/BandProminenceAnalyzer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>

#include <kiss_fftr.h>

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kPowerFloor = 1e-12; // −120 dB
constexpr double kSmoothingPerSecond = 0.125;
constexpr double kMaxRepresentedSeconds = 2.0;

double levelDb(double power) { return 10.0 * std::log10(std::max(power, kPowerFloor)); }

} // namespace

// KissFFT keeps scratch space inside its plan, so unlike the window a plan cannot be shared
// between analysers running on different threads: each analyser owns one, made once.
struct BandProminenceAnalyzer::Fft {
    kiss_fftr_cfg plan = nullptr;
    std::vector<float> windowed;
    std::vector<kiss_fft_cpx> spectrum;

    Fft() : plan(kiss_fftr_alloc(windowSize, 0, nullptr, nullptr)), windowed(windowSize), spectrum(binCount + 1) {
        if (!plan) throw std::bad_alloc();
    }
    ~Fft() { kiss_fftr_free(plan); }
    Fft(const Fft&) = delete;
    Fft& operator=(const Fft&) = delete;

    // Windows `samples` (windowSize of them) and leaves the power of bins 0 … binCount−1 in
    // `power`. The Nyquist bin is dropped, as bin 0 (DC) is never used by any band.
    void powerSpectrum(const float* samples, float* power) {
        const auto window = hannWindow();
        for (int i = 0; i < windowSize; ++i) windowed[i] = samples[i] * window[i];
        kiss_fftr(plan, windowed.data(), spectrum.data());
        for (int k = 0; k < binCount; ++k)
            power[k] = spectrum[k].r * spectrum[k].r + spectrum[k].i * spectrum[k].i;
    }
};

std::span<const float, BandProminenceAnalyzer::windowSize> BandProminenceAnalyzer::hannWindow() {
    static const std::array<float, windowSize> window = [] {
        std::array<float, windowSize> w{};
        // Periodic Hann scaled by √(2/3) × 2 so that its mean square is 1.
        const double scale = std::sqrt(2.0 / 3.0);
        for (int n = 0; n < windowSize; ++n) w[n] = float(scale * (1.0 - std::cos(2.0 * M_PI * n / windowSize)));
        return w;
    }();
    return std::span<const float, windowSize>(window);
}

std::array<BandProminenceAnalyzer::BandBins, BandProminenceAnalyzer::bandCount>
BandProminenceAnalyzer::bandBinsFor(double sampleRate) {
    std::array<BandBins, bandCount> bins{};
    const double binWidth = sampleRate / windowSize;
    const double upperLimit = sampleRate * 0.5 * 0.98;
    for (int b = 0; b < bandCount; ++b) {
        const double fc = TenBandLayout::centerFrequenciesHz[b];
        const double lo = fc / std::sqrt(2.0);
        const double hi = std::min(upperLimit, fc * std::sqrt(2.0));
        if (!(lo < hi)) continue;
        bins[b].first = std::max(1, int(lo / binWidth));
        bins[b].last = std::min(binCount - 1, int(hi / binWidth));
    }
    return bins;
}

double BandProminenceAnalyzer::median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

BandProminenceAnalyzer::BandProminenceAnalyzer()
    : tap_(AnalysisTap::defaultFrameCapacity), bins_(bandBinsFor(sampleRate_)), fft_(std::make_unique<Fft>()),
      readBuffer_(windowSize), magnitudes_(binCount), queue_("sorvi.analysis.prominence", "tarn-prominence") {}

BandProminenceAnalyzer::~BandProminenceAnalyzer() { queue_.cancelTimer(); }

void BandProminenceAnalyzer::scheduleTimer() {
    queue_.scheduleRepeating(tickInterval, tickInterval,
                             [this] { drain(mode_ == Mode::track ? maxWindowsPerTickTrack : maxWindowsPerTickSettle); });
}

void BandProminenceAnalyzer::clearState() {
    // Audio the tap collected before the reset belongs to what was analysed before (the last
    // song, the last engine): left in the ring it would become the new song's first windows.
    auto& ring = tap_.ring();
    while (ring.availableFramesToRead() > 0 && ring.read(readBuffer_.data(), windowSize) > 0) {
    }
    smoothedBandPower_.reset();
    analyzedSeconds_ = 0.0;
    mode_ = Mode::settle;
    lastAnalyzedSlot_ = -1;
    lastAnalyzedAtSeconds_ = -1.0;
    timelineRecording_ = false;
    timelineSums_.clear();
    timelineCounts_.clear();
    publish();
}

void BandProminenceAnalyzer::start(double sampleRate) {
    queue_.sync([&] {
        if (std::isfinite(sampleRate) && sampleRate > 0) sampleRate_ = sampleRate;
        bins_ = bandBinsFor(sampleRate_);
        clearState();
        tap_.resetFramesObserved();
        running_ = true;
        scheduleTimer();
    });
}

void BandProminenceAnalyzer::stop() {
    queue_.sync([&] {
        running_ = false;
        queue_.cancelTimer();
    });
}

void BandProminenceAnalyzer::reset() {
    queue_.sync([&] {
        clearState();
        tap_.resetFramesObserved();
        if (running_) scheduleTimer();
    });
}

ProminenceSnapshot BandProminenceAnalyzer::snapshot() const {
    std::lock_guard lock(snapshotLock_);
    return snapshot_;
}

BandProminenceAnalyzer::Mode BandProminenceAnalyzer::currentMode() {
    return queue_.syncResult([&] { return mode_; });
}

void BandProminenceAnalyzer::setMode(Mode mode) {
    queue_.sync([&] {
        mode_ = timelineRecording_ ? Mode::settle : mode;
        if (running_) scheduleTimer();
    });
}

double BandProminenceAnalyzer::songClockSeconds() {
    return queue_.syncResult([&] { return double(tap_.framesObserved()) / sampleRate_; });
}

void BandProminenceAnalyzer::setTimelineRecording(bool on) {
    queue_.sync([&] {
        timelineRecording_ = on;
        if (on) {
            mode_ = Mode::settle;
            if (running_) scheduleTimer();
        } else {
            timelineSums_.clear();
            timelineCounts_.clear();
        }
    });
}

std::vector<BandProminenceAnalyzer::TimelineSecond> BandProminenceAnalyzer::timelineSnapshot() {
    return queue_.syncResult([&] {
        std::vector<TimelineSecond> out(timelineSums_.size());
        for (std::size_t s = 0; s < out.size(); ++s) {
            if (timelineCounts_[s] == 0) continue;
            BandLevels mean{};
            for (int b = 0; b < bandCount; ++b) mean[b] = timelineSums_[s][b] / timelineCounts_[s];
            out[s] = mean;
        }
        return out;
    });
}

void BandProminenceAnalyzer::drainNowForTesting() {
    queue_.sync([&] { drain(mode_ == Mode::track ? maxWindowsPerTickTrack : maxWindowsPerTickSettle); });
}

void BandProminenceAnalyzer::drainAvailableWindows() {
    queue_.sync([&] { drain(std::numeric_limits<int>::max()); });
}

BandProminenceAnalyzer::BandLevels BandProminenceAnalyzer::bandPowers() const {
    BandLevels powers;
    for (int b = 0; b < bandCount; ++b) {
        const auto& band = bins_[b];
        if (band.last < band.first) {
            powers[b] = kNaN;
            continue;
        }
        double sum = 0.0;
        for (int k = band.first; k <= band.last; ++k) sum += magnitudes_[k];
        powers[b] = sum;
    }
    return powers;
}

void BandProminenceAnalyzer::drain(int windowCap) {
    AudioRingBuffer& ring = tap_.ring();
    const std::int64_t available = ring.availableFramesToRead();
    const std::int64_t observed = tap_.framesObserved();
    if (available < windowSize) return;
    // Song-clock time of the oldest unread frame.
    double t = double(observed - std::min(available, observed)) / sampleRate_;
    const double w = windowSize / sampleRate_;

    int analysed = 0;
    while (ring.availableFramesToRead() >= windowSize) {
        if (ring.read(readBuffer_.data(), windowSize) < windowSize) break;
        const double windowTime = t;
        t += w;
        if (analysed >= windowCap) continue; // read and discarded
        const auto slot = std::int64_t(windowTime);
        if (mode_ == Mode::track && slot == lastAnalyzedSlot_) continue;

        double sumSquares = 0.0;
        for (float v : readBuffer_) sumSquares += double(v) * v;
        if (!(std::sqrt(sumSquares / windowSize) > silenceRms)) continue;

        const double represented = lastAnalyzedAtSeconds_ < 0
                                       ? w
                                       : std::clamp(windowTime - lastAnalyzedAtSeconds_, w, kMaxRepresentedSeconds);
        lastAnalyzedSlot_ = slot;
        lastAnalyzedAtSeconds_ = windowTime;

        fft_->powerSpectrum(readBuffer_.data(), magnitudes_.data());
        const BandLevels powers = bandPowers();
        accumulate(powers, represented);
        if (timelineRecording_) recordTimeline(powers, windowTime);
        analyzedSeconds_ += w;
        ++analysed;
    }
    if (analysed > 0) publish();
}

void BandProminenceAnalyzer::accumulate(const BandLevels& powers, double representedSeconds) {
    if (!smoothedBandPower_) {
        BandLevels first;
        for (int b = 0; b < bandCount; ++b) first[b] = std::isnan(powers[b]) ? 0.0 : powers[b];
        smoothedBandPower_ = first;
        return;
    }
    const double alpha = std::min(representedSeconds * kSmoothingPerSecond, 1.0);
    for (int b = 0; b < bandCount; ++b)
        if (!std::isnan(powers[b])) (*smoothedBandPower_)[b] += alpha * (powers[b] - (*smoothedBandPower_)[b]);
}

void BandProminenceAnalyzer::recordTimeline(const BandLevels& powers, double t) {
    const auto slot = std::int64_t(t);
    if (slot < 0 || slot >= maxTimelineSeconds) return;
    BandLevels levels;
    std::vector<double> audible;
    for (int b = 0; b < bandCount; ++b) {
        levels[b] = std::isnan(powers[b]) ? -120.0 : levelDb(powers[b]);
        if (levels[b] > silentLevelDb) audible.push_back(levels[b]);
    }
    if (audible.empty()) return;
    const double reference = median(std::move(audible));
    while (std::int64_t(timelineSums_.size()) <= slot) {
        timelineSums_.push_back(BandLevels{});
        timelineCounts_.push_back(0);
    }
    for (int b = 0; b < bandCount; ++b)
        timelineSums_[slot][b] += levels[b] <= silentLevelDb ? 0.0 : levels[b] - reference;
    ++timelineCounts_[slot];
}

void BandProminenceAnalyzer::publish() {
    ProminenceSnapshot next;
    if (smoothedBandPower_) {
        BandLevels levels;
        std::vector<double> audible;
        for (int b = 0; b < bandCount; ++b) {
            levels[b] = levelDb((*smoothedBandPower_)[b]);
            if (levels[b] > silentLevelDb) audible.push_back(levels[b]);
        }
        const double reference = median(std::move(audible));
        next.prominenceDb.resize(bandCount);
        for (int b = 0; b < bandCount; ++b)
            next.prominenceDb[b] = levels[b] <= silentLevelDb ? 0.0 : levels[b] - reference;
        next.isConfident = analyzedSeconds_ >= confidentAfterSeconds;
        next.analyzedSeconds = analyzedSeconds_;
    }
    std::lock_guard lock(snapshotLock_);
    snapshot_ = std::move(next);
}

BandProminenceAnalyzer::BandLevels BandProminenceAnalyzer::bandPowersDb(std::span<const float> samples,
                                                                       double sampleRate) {
    BandLevels out;
    if (!(std::isfinite(sampleRate) && sampleRate > 0)) {
        out.fill(kNaN);
        return out;
    }
    const auto bins = bandBinsFor(sampleRate);
    Fft fft;
    std::vector<float> window(windowSize), power(binCount);
    BandLevels sums{};
    int windows = 0;
    for (std::size_t start = 0; start < samples.size() || windows == 0; start += windowSize) {
        const std::size_t n = std::min<std::size_t>(windowSize, samples.size() - std::min(start, samples.size()));
        std::fill(window.begin(), window.end(), 0.0f);
        std::copy_n(samples.begin() + std::ptrdiff_t(start), n, window.begin());
        fft.powerSpectrum(window.data(), power.data());
        for (int b = 0; b < bandCount; ++b)
            for (int k = bins[b].first; k <= bins[b].last; ++k) sums[b] += power[k];
        ++windows;
        if (n < std::size_t(windowSize)) break;
    }
    for (int b = 0; b < bandCount; ++b)
        out[b] = bins[b].last < bins[b].first ? kNaN : levelDb(sums[b] / windows);
    return out;
}

} // namespace tarn
