#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "core/dsp/BandBeatMeter.hpp"
#include "core/dsp/CorrectionEQ.hpp"
#include "core/dsp/Limiter.hpp"
#include "core/dsp/PeakMeter.hpp"
#include "core/dsp/SectionCascade.hpp"
#include "core/dsp/TenBandEQ.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

// The one processing object of a route: ten-band EQ → headphone correction → user parametric
// EQ → route gain × output trim (with the fixed make-up) × safety-ceiling attenuation →
// automatic headroom → limiter, plus meters. Setters run on the control thread (one writer) and
// publish through atomics; processInterleaved runs on the real-time thread, in place, without
// locks or allocation.
class RouteDSPChain {
public:
    static constexpr double outputMakeupDb = 4.0;
    static constexpr double outputMakeupLinear = 1.5848931924611136;
    static constexpr float outputMakeupLinearFloat = 1.5848932f;

    static constexpr double meterDecayMs = 300.0;
    static constexpr double beatMeterDecayMs = 200.0;

    // A channel whose block never exceeds −100 dBFS is silent; after this many silent blocks in
    // a row it counts as inactive, and its filter memory is cleared when sound comes back.
    static constexpr float silenceThreshold = 1.0e-5f;
    static constexpr int silentBlocksBeforeInactive = 8;

    // Muting clears the very next block; unmuting fades back in linearly over this time so
    // the return is click-free.
    static constexpr double unmuteRampSeconds = 0.005;

    // Automatic headroom.
    static constexpr double headroomAverageSeconds = 0.25;
    static constexpr double headroomFloor = 0.25;
    static constexpr double headroomBoostRatio = 1.05;
    static constexpr double headroomDownStepAt48k = 0.00025;
    static constexpr double headroomUpStepAt48k = 0.000005;

    // The three scalar gains a block applies. The ceiling is derived from the other two, so they
    // are published as one set: a block that ran a new gain against the old ceiling would put a
    // boost out un-attenuated, above the ceiling.
    struct ScalarGains {
        double routeGainLinear = 1.0;
        double outputTrimLinear = outputMakeupLinear;   // make-up included
        double ceilingAttenuationLinear = 1.0;          // starts disengaged until the first setting
    };
    // A real-time read of the set that keeps losing to the writer uses the last whole set read.
    static constexpr int scalarGainsReadAttempts = 4;

    // `clock` ages the equalisers' retired banks (tests inject one).
    RouteDSPChain(int channelCount, double sampleRate, UptimeClock clock = {});
    RouteDSPChain(const RouteDSPChain&) = delete;
    RouteDSPChain& operator=(const RouteDSPChain&) = delete;

    // Control thread.
    void setGain(double db);
    void setOutputTrim(double db);
    bool isMuted() const { return mutedAtomic_.load(std::memory_order_acquire); }
    void setMuted(bool muted) { mutedAtomic_.store(muted); }
    void setSafetyCeilingEnabled(bool enabled);
    bool isSafetyCeilingEnabled() const { return safetyCeilingEnabled_; }
    void recomputeSafetyCeiling();
    void recomputeEffectiveQs(GenrePreset genre, const HeadphoneProfile* correctionProfile);
    // Redesigns every stage and the meters for a new rate. The equalisers may be rebuilt while
    // audio runs; the meters' time base may not, so call it before (re)starting the stream.
    void rebuild(double sampleRate);
    // Start-of-stream gain state: gains 1, averages 0, every channel active. Not while the
    // real-time thread runs the chain.
    void resetRealtimeState();

    double routeGainDb() const { return routeGainDb_; }
    double outputTrimDb() const { return outputTrimDb_; }
    // Any non-real-time thread.
    ScalarGains publishedScalarGains() const;
    double ceilingAttenuationLinear() const { return publishedScalarGains().ceilingAttenuationLinear; }
    bool isSafetyCeilingActive() const { return ceilingAttenuationLinear() < 1.0; }
    // The last estimate of the combined peak gain (make-up included), whether or not the ceiling
    // is enabled.
    double estimatedPeakGainDb() const { return estimatedPeakGainDb_.load(std::memory_order_acquire); }
    // The headroom gain at the end of the last block.
    double headroomGain() const { return publishedHeadroomGain_.load(std::memory_order_acquire); }
    // True when the last block took the pass-through shortcut (left untouched).
    bool wasPassthrough() const { return wasPassthroughAtomic_.load(std::memory_order_acquire); }
    // Sections of the running stages that cannot run at this rate and are left out (see
    // StageSections): the route shows the count, so a correction that is partly missing at a
    // low rate (a headset in call mode) is never a silent change.
    int leftOutSectionCount() const { return leftOutSectionCount_.load(std::memory_order_acquire); }
    // Input samples that were not finite numbers (NaN, infinity), played as silence, since the
    // chain was made.
    std::uint64_t nonFiniteInputSampleCount() const { return nonFiniteInputSamples_.load(std::memory_order_relaxed); }
    int channelCount() const { return channelCount_; }
    double sampleRate() const { return sampleRate_; }

    TenBandEQ& customEQ() { return *customEQ_; }
    CorrectionEQ& correctionEQ() { return *correctionEQ_; }
    CorrectionEQ& userParametricEQ() { return *userParametricEQ_; }
    const TenBandEQ& customEQ() const { return *customEQ_; }
    const CorrectionEQ& correctionEQ() const { return *correctionEQ_; }
    const CorrectionEQ& userParametricEQ() const { return *userParametricEQ_; }
    Limiter& limiter() { return limiter_; }
    PeakMeter& inputMeter() { return inputMeter_; }
    PeakMeter& outputMeter() { return outputMeter_; }
    BandBeatMeter& beatMeter() { return beatMeter_; }

    // The equalisers normally run through the vector cascade (bit-identical to the per-channel
    // stage path); switching it off runs every stage's own processBlock per channel, the
    // reference the vector path is tested and benchmarked against. Not while audio runs.
    void setVectorCascadeEnabled(bool enabled) { vectorCascadeEnabled_ = enabled; }
    bool isVectorCascadeEnabled() const { return vectorCascadeEnabled_; }
    // Sections one block can hand to the vector cascade; a longer chain runs per stage.
    static constexpr int maxCascadeSections = 256;

    // Real-time thread.
    void processInterleaved(float* samples, int frameCount);
    double process(double x);
    std::pair<double, double> processStereo(double left, double right);

private:
    double sanitisedInput(double x);
    void publishScalarGains(const ScalarGains& gains);
    // True (and `out` filled) when one attempt read a whole set.
    bool tryReadScalarGains(ScalarGains& out) const;
    ScalarGains realtimeScalarGains();
    void trackChannelActivity(const float* channelPeaks);
    void updateHeadroom(double preSaturationPeak, double inputPeak, int frameCount);
    // Returns the output peak.
    float applyGainsAndLimit(float* samples, int frameCount, float fromScalarGain, float scalarGain,
                             float& preSaturationPeak);
    void runStagesPerChannel(float* samples, int frameCount, const TenBandEQ::ProcessingSnapshot& eq,
                             const CorrectionEQ::ProcessingSnapshot& correction,
                             const CorrectionEQ::ProcessingSnapshot& parametric);
    bool runStagesVectorised(float* samples, int frameCount, const TenBandEQ::ProcessingSnapshot& eq,
                             const CorrectionEQ::ProcessingSnapshot& correction,
                             const CorrectionEQ::ProcessingSnapshot& parametric);

    int channelCount_;
    double sampleRate_;
    std::unique_ptr<TenBandEQ> customEQ_;
    std::unique_ptr<CorrectionEQ> correctionEQ_;
    std::unique_ptr<CorrectionEQ> userParametricEQ_;
    Limiter limiter_;
    PeakMeter inputMeter_;
    PeakMeter outputMeter_;
    BandBeatMeter beatMeter_;

    double routeGainDb_ = 0.0;
    double outputTrimDb_ = 0.0;
    std::atomic<bool> mutedAtomic_{false};
    bool safetyCeilingEnabled_ = true;
    std::atomic<double> estimatedPeakGainDb_{0.0};
    std::atomic<int> leftOutSectionCount_{0};
    std::atomic<std::uint64_t> nonFiniteInputSamples_{0};
    // ScalarGains behind a sequence lock: odd while the writer is mid-set.
    std::atomic<std::uint32_t> scalarGainsVersion_{0};
    std::atomic<std::uint64_t> routeGainBits_, outputTrimBits_, ceilingAttenuationBits_;

    // Real-time state.
    ScalarGains rtLastScalarGains_;
    // The overall scalar gain the last block ended on; a change ramps from it across the next
    // block. Unprimed, the next block starts at the published gain (a start has nothing to
    // click against).
    float rtPreviousScalarGain_ = 1.0f;
    bool rtScalarGainPrimed_ = false;
    float muteGain_ = 1.0f;
    double headroomGain_ = 1.0;
    double headroomTarget_ = 1.0;
    double preSaturationEma_ = 0.0;
    double inputPeakEma_ = 0.0;
    std::vector<bool> channelActive_;
    std::vector<int> channelSilentBlocks_;
    std::vector<float> channelPeaks_;
    bool wasPassthrough_ = false;
    bool customEQWasActive_ = false;
    bool correctionWasActive_ = false;
    bool parametricWasActive_ = false;
    std::atomic<double> publishedHeadroomGain_{1.0};
    std::atomic<bool> wasPassthroughAtomic_{false};
    bool vectorCascadeEnabled_ = true;
    std::vector<SectionCascade::Section> cascade_;   // capacity reserved once, reused per block
};

} // namespace tarn
