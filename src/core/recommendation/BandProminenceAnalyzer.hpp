#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "core/recommendation/AnalysisTap.hpp"
#include "core/recommendation/ProminenceSnapshot.hpp"
#include "core/recommendation/SerialQueue.hpp"

namespace tarn {

// Listens to what a route plays and tells, per EQ band, how loud the band is against the song's
// median band. The real-time thread only writes into `tap()`; every 500 ms the analyser's own
// worker ("sorvi.analysis.prominence") takes the 4096-frame windows collected since the last
// tick, runs a Hann-windowed FFT over each, smooths the band powers (about 8 s time constant)
// and publishes a ProminenceSnapshot.
//
// Band power is the sum of |X[k]|² (unscaled DFT of the window times the normalised Hann window)
// over the bins from centre/√2 to centre·√2, never the DC bin, never above 0.49 × sample rate.
class BandProminenceAnalyzer {
public:
    enum class Mode { settle = 0, track = 1 };

    static constexpr int bandCount = 10;
    static constexpr int windowSize = 4096;
    static constexpr int binCount = windowSize / 2;
    static constexpr int maxTimelineSeconds = 600;
    static constexpr int maxWindowsPerTickSettle = 8;
    static constexpr int maxWindowsPerTickTrack = 2;
    static constexpr double silenceRms = 0.0001;
    static constexpr double confidentAfterSeconds = 4.0;
    static constexpr double silentLevelDb = -110.0; // a band at or below this is left out
    static constexpr std::chrono::milliseconds tickInterval{500};

    using BandLevels = std::array<double, bandCount>;
    using TimelineSecond = std::optional<BandLevels>;

    BandProminenceAnalyzer();
    // Cancels the timer and joins the worker: no thread outlives the analyser.
    ~BandProminenceAnalyzer();
    BandProminenceAnalyzer(const BandProminenceAnalyzer&) = delete;
    BandProminenceAnalyzer& operator=(const BandProminenceAnalyzer&) = delete;

    AnalysisTap& tap() { return tap_; }

    // Records the sample rate, clears every analysis state, restarts the song clock and starts
    // the 500 ms tick.
    void start(double sampleRate);
    // Stops the tick. Whatever the tap collects waits for the next start or drain.
    void stop();
    bool isRunning() const { return queue_.hasTimer(); }
    // Clears every analysis state, publishes the empty snapshot and restarts the song clock (and
    // the tick, when running).
    void reset();

    // Any thread.
    ProminenceSnapshot snapshot() const;

    Mode currentMode();
    // While the timeline is recording, `track` takes effect as `settle`.
    void setMode(Mode mode);
    double songClockSeconds();
    void setClockPaused(bool paused) { tap_.setClockPaused(paused); }

    // Switching off clears the timeline; switching on forces `settle` (every window is needed).
    void setTimelineRecording(bool on);
    // One entry per song second from 0: the mean relative band levels of the windows recorded in
    // that second, or none for a second without any.
    std::vector<TimelineSecond> timelineSnapshot();

    // One tick's drain, synchronously on the worker (per-tick window cap included).
    void drainNowForTesting();
    // Offline analysis: every readable window, now, without the per-tick cap.
    void drainAvailableWindows();

    // Ten band levels in dB (10·log10 of the band power as above, floor −120 dB) of a block of
    // mono samples, averaged over its consecutive 4096-sample windows (a short last window is
    // zero-padded). A band above the usable range is NaN. For offline use.
    static BandLevels bandPowersDb(std::span<const float> samples, double sampleRate);

    // The normalised 4096-point Hann window (mean square 1) shared by every analyser.
    static std::span<const float, windowSize> hannWindow();

private:
    struct Fft;
    struct BandBins {
        int first = 0;
        int last = -1; // first > last: the band is above the usable range
    };

    void scheduleTimer();
    void clearState();
    void drain(int windowCap);
    void accumulate(const BandLevels& powers, double representedSeconds);
    void recordTimeline(const BandLevels& powers, double t);
    void publish();
    BandLevels bandPowers() const;

    static std::array<BandBins, bandCount> bandBinsFor(double sampleRate);
    static double median(std::vector<double> values);

    AnalysisTap tap_;
    double sampleRate_ = 48000.0;
    std::array<BandBins, bandCount> bins_;
    std::unique_ptr<Fft> fft_;
    std::vector<float> readBuffer_;
    std::vector<float> magnitudes_;
    std::optional<BandLevels> smoothedBandPower_;
    double analyzedSeconds_ = 0.0;
    Mode mode_ = Mode::settle;
    std::int64_t lastAnalyzedSlot_ = -1;
    double lastAnalyzedAtSeconds_ = -1.0;
    bool timelineRecording_ = false;
    std::vector<BandLevels> timelineSums_;
    std::vector<int> timelineCounts_;
    bool running_ = false;

    mutable std::mutex snapshotLock_; // guards snapshot_ only
    ProminenceSnapshot snapshot_;

    // Last member: destroyed first, so no tick can run against destroyed state.
    SerialQueue queue_;
};

} // namespace tarn
