#include "core/dsp/RouteDSPChain.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include "core/dsp/BlockMath.hpp"
#include "core/dsp/CorrectionAwareQ.hpp"
#include "core/dsp/OutputSafetyCeiling.hpp"

namespace tarn {

namespace {
std::uint64_t bitsOf(double v) { return std::bit_cast<std::uint64_t>(v); }
double doubleOf(std::uint64_t bits) { return std::bit_cast<double>(bits); }

// The block path's overall gain: each factor narrowed, then multiplied in single precision.
float blockScalarGain(const RouteDSPChain::ScalarGains& g) {
    return static_cast<float>(g.routeGainLinear) * static_cast<float>(g.outputTrimLinear) *
           static_cast<float>(g.ceilingAttenuationLinear);
}

// The larger of peak and |v|, ignoring a non-finite v.
inline float finiteMax(float peak, float v) {
    const float m = std::fabs(v);
    return m > peak && m <= std::numeric_limits<float>::max() ? m : peak;
}
} // namespace

RouteDSPChain::RouteDSPChain(int channelCount, double sampleRate, UptimeClock clock)
    : channelCount_(channelCount < 1 ? 1 : channelCount), sampleRate_(sampleRate),
      customEQ_(std::make_unique<TenBandEQ>(channelCount_, sampleRate, clock)),
      correctionEQ_(std::make_unique<CorrectionEQ>(channelCount_, sampleRate, clock)),
      userParametricEQ_(std::make_unique<CorrectionEQ>(channelCount_, sampleRate, clock)),
      limiter_(sampleRate), inputMeter_(meterDecayMs, sampleRate), outputMeter_(meterDecayMs, sampleRate),
      beatMeter_(sampleRate, beatMeterDecayMs),
      routeGainBits_(bitsOf(ScalarGains{}.routeGainLinear)), outputTrimBits_(bitsOf(ScalarGains{}.outputTrimLinear)),
      ceilingAttenuationBits_(bitsOf(ScalarGains{}.ceilingAttenuationLinear)),
      channelActive_(channelCount_, true), channelSilentBlocks_(channelCount_, 0), channelPeaks_(channelCount_, 0.0f) {
    cascade_.reserve(maxCascadeSections);
    // Every route carries the fixed make-up, so a new chain's trim is 0 dB plus 4 dB (the
    // ScalarGains defaults). The ceiling starts disengaged and is first computed on the first
    // setting.
    estimatedPeakGainDb_.store(outputMakeupDb);
    customEQ_->setOnChange([this] { recomputeSafetyCeiling(); });
    correctionEQ_->setOnChange([this] { recomputeSafetyCeiling(); });
    userParametricEQ_->setOnChange([this] { recomputeSafetyCeiling(); });
}

// One writer. The field stores are release stores, so a reader whose acquire load sees any of
// them also sees the odd version stored before it, and its second version check fails.
void RouteDSPChain::publishScalarGains(const ScalarGains& gains) {
    constexpr auto rel = std::memory_order_release;
    const std::uint32_t v = scalarGainsVersion_.load(std::memory_order_relaxed);
    scalarGainsVersion_.store(v + 1, rel);
    routeGainBits_.store(bitsOf(gains.routeGainLinear), rel);
    outputTrimBits_.store(bitsOf(gains.outputTrimLinear), rel);
    ceilingAttenuationBits_.store(bitsOf(gains.ceilingAttenuationLinear), rel);
    scalarGainsVersion_.store(v + 2, rel);
}

bool RouteDSPChain::tryReadScalarGains(ScalarGains& out) const {
    constexpr auto acq = std::memory_order_acquire;
    const std::uint32_t before = scalarGainsVersion_.load(acq);
    if (before & 1u) return false;
    const ScalarGains g{doubleOf(routeGainBits_.load(acq)), doubleOf(outputTrimBits_.load(acq)),
                        doubleOf(ceilingAttenuationBits_.load(acq))};
    if (scalarGainsVersion_.load(acq) != before) return false;
    out = g;
    return true;
}

RouteDSPChain::ScalarGains RouteDSPChain::realtimeScalarGains() {
    for (int attempt = 0; attempt < scalarGainsReadAttempts; ++attempt)
        if (tryReadScalarGains(rtLastScalarGains_)) break;
    return rtLastScalarGains_;
}

// Not real-time, so it may wait for the writer rather than fall back on an older set.
RouteDSPChain::ScalarGains RouteDSPChain::publishedScalarGains() const {
    ScalarGains g;
    while (!tryReadScalarGains(g)) std::this_thread::yield();
    return g;
}

void RouteDSPChain::setGain(double db) {
    routeGainDb_ = db;
    recomputeSafetyCeiling();
}

void RouteDSPChain::setOutputTrim(double db) {
    outputTrimDb_ = db;
    recomputeSafetyCeiling();
}

void RouteDSPChain::setSafetyCeilingEnabled(bool enabled) {
    safetyCeilingEnabled_ = enabled;
    recomputeSafetyCeiling();
}

// Gain, trim and the ceiling they imply are all worked out before any of them is published.
void RouteDSPChain::recomputeSafetyCeiling() {
    if (!customEQ_ || !correctionEQ_ || !userParametricEQ_) return;   // still constructing
    const StageSections stages[] = {
        StageSections::tenBand(customEQ_->isBypassed() ? std::vector<EQBandState>{} : customEQ_->worstCaseBands(),
                               customEQ_->sampleRate()),
        correctionEQ_->runningSections(),
        userParametricEQ_->runningSections(),
    };
    leftOutSectionCount_.store(stages[0].leftOutCount + stages[1].leftOutCount + stages[2].leftOutCount);
    const double estimate =
        OutputSafetyCeiling::estimatedPeakGainDb(routeGainDb_, outputTrimDb_ + outputMakeupDb, stages);
    estimatedPeakGainDb_.store(estimate);
    const double attenuation = safetyCeilingEnabled_ ? OutputSafetyCeiling::makeupAttenuationLinear(estimate) : 1.0;
    publishScalarGains({std::pow(10.0, routeGainDb_ / 20.0), std::pow(10.0, (outputTrimDb_ + outputMakeupDb) / 20.0),
                        attenuation});
}

void RouteDSPChain::recomputeEffectiveQs(GenrePreset genre, const HeadphoneProfile* correctionProfile) {
    customEQ_->applyQVector(CorrectionAwareQ::qVector(genre, correctionProfile, TenBandLayout::defaultQ));
}

void RouteDSPChain::rebuild(double sampleRate) {
    if (!(sampleRate > 0) || sampleRate == sampleRate_) return;
    sampleRate_ = sampleRate;
    customEQ_->rebuild(sampleRate);
    correctionEQ_->rebuild(sampleRate);
    userParametricEQ_->rebuild(sampleRate);
    inputMeter_.setSampleRate(sampleRate);
    outputMeter_.setSampleRate(sampleRate);
    beatMeter_.rebuild(sampleRate);
    recomputeSafetyCeiling();
}

void RouteDSPChain::resetRealtimeState() {
    muteGain_ = 1.0f;
    headroomGain_ = 1.0;
    headroomTarget_ = 1.0;
    preSaturationEma_ = 0.0;
    inputPeakEma_ = 0.0;
    rtScalarGainPrimed_ = false;
    std::fill(channelActive_.begin(), channelActive_.end(), true);
    std::fill(channelSilentBlocks_.begin(), channelSilentBlocks_.end(), 0);
    wasPassthrough_ = false;
    publishedHeadroomGain_.store(1.0);
    wasPassthroughAtomic_.store(false);
}

void RouteDSPChain::trackChannelActivity(const float* channelPeaks) {
    for (int ch = 0; ch < channelCount_; ++ch) {
        if (channelPeaks[ch] <= silenceThreshold) {
            if (channelSilentBlocks_[ch] < silentBlocksBeforeInactive) ++channelSilentBlocks_[ch];
            if (channelSilentBlocks_[ch] >= silentBlocksBeforeInactive) channelActive_[ch] = false;
            continue;
        }
        channelSilentBlocks_[ch] = 0;
        if (!channelActive_[ch]) {
            // Sound is back after a silence: start from clean filter memory, not a stale tail.
            customEQ_->resetChannelState(ch);
            correctionEQ_->resetChannelState(ch);
            userParametricEQ_->resetChannelState(ch);
            channelActive_[ch] = true;
        }
    }
}

void RouteDSPChain::updateHeadroom(double preSaturationPeak, double inputPeak, int frameCount) {
    const double a = std::min(frameCount / (headroomAverageSeconds * std::max(sampleRate_, 1.0)), 1.0);
    preSaturationEma_ += a * (preSaturationPeak - preSaturationEma_);
    inputPeakEma_ += a * (inputPeak - inputPeakEma_);
    if (preSaturationEma_ > Limiter::kneeStart && preSaturationEma_ > headroomBoostRatio * inputPeakEma_) {
        const double r = inputPeakEma_ > 0 ? std::min(inputPeakEma_ / preSaturationEma_, 1.0) : headroomFloor;
        headroomTarget_ = std::max({Limiter::kneeStart / preSaturationEma_, r, headroomFloor});
    } else {
        headroomTarget_ = 1.0;
    }
}

// Route gain × trim × ceiling, then the ramped headroom and unmute gains, then the limiter. A
// changed scalar gain moves linearly from fromScalarGain to scalarGain across the block, reaching
// it on the last frame, so a live edit never steps at a block edge. Returns (through
// preSaturationPeak) the block's peak after the scalar gains and before the headroom gain: the
// level the route's own settings drive into the limiter.
float RouteDSPChain::applyGainsAndLimit(float* samples, int frameCount, float fromScalarGain, float scalarGain,
                                        float& preSaturationPeak) {
    const int c = channelCount_;
    float peak = 0.0f;
    const bool steady = fromScalarGain == scalarGain && headroomGain_ == headroomTarget_ && muteGain_ == 1.0f;
    if (steady) {
        peak = BlockMath::scaleAndPeak(samples, frameCount * c, scalarGain, static_cast<float>(headroomGain_));
    } else {
        const double rateScale = 48000.0 / sampleRate_;
        const double down = headroomDownStepAt48k * rateScale, up = headroomUpStepAt48k * rateScale;
        const float muteStep = static_cast<float>(1.0 / std::max(1.0, unmuteRampSeconds * sampleRate_));
        const double scalarFrom = fromScalarGain;
        const double scalarStep = (double(scalarGain) - scalarFrom) / frameCount;
        double hg = headroomGain_;
        const double target = headroomTarget_;
        float mg = muteGain_;
        for (int f = 0; f < frameCount; ++f) {
            if (hg > target) hg = std::max(hg - down, target);
            else if (hg < target) hg = std::min(hg + up, target);
            mg = std::min(mg + muteStep, 1.0f);
            const float g = static_cast<float>(hg) * mg;
            const float sg = f + 1 == frameCount ? scalarGain : static_cast<float>(scalarFrom + scalarStep * (f + 1));
            float* frame = samples + std::size_t(f) * c;
            for (int ch = 0; ch < c; ++ch) {
                const float v = frame[ch] * sg;
                peak = finiteMax(peak, v);
                frame[ch] = v * g;
            }
        }
        headroomGain_ = hg;
        muteGain_ = mg;
    }
    preSaturationPeak = peak;
    return limiter_.processBlock(samples, frameCount * c);
}

void RouteDSPChain::processInterleaved(float* samples, int frameCount) {
    if (!samples || frameCount < 1) return;
    const int c = channelCount_;
    const int n = frameCount * c;
    const bool muted = mutedAtomic_.load(std::memory_order_acquire);
    const float scalarGain = blockScalarGain(realtimeScalarGains());
    // After a muted block the unmute fade starts from silence: a gain change made meanwhile has
    // nothing to ramp from, and ramping anyway would stretch the fade.
    const float fromScalarGain = rtScalarGainPrimed_ && muteGain_ > 0.0f ? rtPreviousScalarGain_ : scalarGain;
    rtPreviousScalarGain_ = scalarGain;
    rtScalarGainPrimed_ = true;

    // A NaN or infinity from the application is played as silence (and counted): passed on, it
    // would clear every filter's memory at the end of the block and click.
    if (const int nonFinite = BlockMath::silenceNonFinite(samples, n))
        nonFiniteInputSamples_.fetch_add(std::uint64_t(nonFinite), std::memory_order_relaxed);

    BlockMath::channelPeaks(samples, frameCount, c, channelPeaks_.data());
    float inputPeak = 0.0f;
    for (float p : channelPeaks_) inputPeak = std::max(inputPeak, p);

    if (muted) {
        std::memset(samples, 0, sizeof(float) * std::size_t(n));
        muteGain_ = 0.0f;
        inputMeter_.updateBlockPeak(0.0, frameCount);
        outputMeter_.updateBlockPeak(0.0, frameCount);
        beatMeter_.processSilence(frameCount);
        updateHeadroom(0.0, 0.0, frameCount);
        wasPassthrough_ = false;
        wasPassthroughAtomic_.store(false, std::memory_order_release);
        publishedHeadroomGain_.store(headroomGain_, std::memory_order_release);
        return;
    }

    inputMeter_.updateBlockPeak(inputPeak, frameCount);
    trackChannelActivity(channelPeaks_.data());

    const TenBandEQ::ProcessingSnapshot eq = customEQ_->processingSnapshot();
    const CorrectionEQ::ProcessingSnapshot correction = correctionEQ_->processingSnapshot();
    const CorrectionEQ::ProcessingSnapshot parametric = userParametricEQ_->processingSnapshot();
    const bool eqActive = !eq.isBypassed, correctionActive = correction.isActive(),
               parametricActive = parametric.isActive();

    // Pass-through: nothing to filter, unity overall gain, no ramp in progress and nothing for
    // the limiter to do. The block is left exactly as it came.
    const bool passthrough = !eqActive && !correctionActive && !parametricActive && scalarGain == 1.0f &&
                             fromScalarGain == 1.0f && muteGain_ == 1.0f && headroomGain_ == 1.0 &&
                             headroomTarget_ == 1.0 && inputPeak <= static_cast<float>(Limiter::kneeStart);

    // A stage that comes back from bypass starts from clean memory rather than a stale tail.
    if (eqActive && !customEQWasActive_) customEQ_->resetStateOnly();
    if (correctionActive && !correctionWasActive_) correctionEQ_->resetStateOnly();
    if (parametricActive && !parametricWasActive_) userParametricEQ_->resetStateOnly();
    customEQWasActive_ = eqActive;
    correctionWasActive_ = correctionActive;
    parametricWasActive_ = parametricActive;

    float outputPeak = 0.0f;
    if (passthrough) {
        outputPeak = inputPeak;
        limiter_.processBlock(samples, 0);   // nothing reached the knee: clear the clipping flag
        updateHeadroom(inputPeak, inputPeak, frameCount);
    } else {
        if (!vectorCascadeEnabled_ || !runStagesVectorised(samples, frameCount, eq, correction, parametric))
            runStagesPerChannel(samples, frameCount, eq, correction, parametric);
        float preSaturationPeak = 0.0f;
        outputPeak = applyGainsAndLimit(samples, frameCount, fromScalarGain, scalarGain, preSaturationPeak);
        updateHeadroom(preSaturationPeak, inputPeak, frameCount);
    }
    wasPassthrough_ = passthrough;
    wasPassthroughAtomic_.store(passthrough, std::memory_order_release);
    publishedHeadroomGain_.store(headroomGain_, std::memory_order_release);

    outputMeter_.updateBlockPeak(outputPeak, frameCount);
    if (inputPeak > silenceThreshold) beatMeter_.processBlock(samples, frameCount, c);
    else beatMeter_.processSilence(frameCount);
}

void RouteDSPChain::runStagesPerChannel(float* samples, int frameCount, const TenBandEQ::ProcessingSnapshot& eq,
                                        const CorrectionEQ::ProcessingSnapshot& correction,
                                        const CorrectionEQ::ProcessingSnapshot& parametric) {
    for (int ch = 0; ch < channelCount_; ++ch) {
        customEQ_->processBlock(samples, frameCount, ch, channelCount_, eq);
        correctionEQ_->processBlock(samples, frameCount, ch, channelCount_, correction);
        userParametricEQ_->processBlock(samples, frameCount, ch, channelCount_, parametric);
    }
}

// The three stages as one cascade per channel pair. A stage's preamp becomes the input gain of
// its first section; a stage with a preamp and no filters is applied between two cascades so
// the rounding stays exactly that of the per-stage path.
bool RouteDSPChain::runStagesVectorised(float* samples, int frameCount, const TenBandEQ::ProcessingSnapshot& eq,
                                        const CorrectionEQ::ProcessingSnapshot& correction,
                                        const CorrectionEQ::ProcessingSnapshot& parametric) {
    const int total = (eq.isBypassed ? 0 : TenBandEQ::bandCount) +
                      (correction.isActive() ? int(correction.coefficients.size()) : 0) +
                      (parametric.isActive() ? int(parametric.coefficients.size()) : 0);
    if (total > maxCascadeSections) return false;
    const int c = channelCount_;
    for (int first = 0; first < c; first += 2) {
        const int pair = std::min(2, c - first);
        const int second = first + pair - 1;
        cascade_.clear();
        if (!eq.isBypassed) {
            const BiquadFloatCoefficients* a = eq.coefficientsFor(first);
            const BiquadFloatCoefficients* b = eq.coefficientsFor(second);
            for (int i = 0; i < TenBandEQ::bandCount; ++i)
                cascade_.push_back({&customEQ_->filter(i), {a[i], b[i]}, 1.0f});
        }
        for (const CorrectionEQ::ProcessingSnapshot* stage : {&correction, &parametric}) {
            if (!stage->isActive()) continue;
            const auto& filters = stage->bank->filters;
            if (filters.empty()) {
                if (stage->preampLinear == 1.0f) continue;
                SectionCascade::run(samples, frameCount, c, first, pair, cascade_);
                cascade_.clear();
                for (int f = 0; f < frameCount; ++f)
                    for (int ch = first; ch <= second; ++ch) samples[std::size_t(f) * c + ch] *= stage->preampLinear;
                continue;
            }
            for (std::size_t i = 0; i < filters.size(); ++i) {
                const BiquadFloatCoefficients& k = stage->coefficients[i];
                cascade_.push_back({filters[i].get(), {k, k}, i == 0 ? stage->preampLinear : 1.0f});
            }
        }
        SectionCascade::run(samples, frameCount, c, first, pair, cascade_);
    }
    return true;
}

double RouteDSPChain::sanitisedInput(double x) {
    if (std::isfinite(x)) return x;
    nonFiniteInputSamples_.fetch_add(1, std::memory_order_relaxed);
    return 0.0;
}

double RouteDSPChain::process(double x) {
    x = sanitisedInput(x);
    if (isMuted()) {
        inputMeter_.update(0.0);
        outputMeter_.update(0.0);
        return 0.0;
    }
    inputMeter_.update(x);
    double y = customEQ_->process(x);
    y = correctionEQ_->process(y);
    y = userParametricEQ_->process(y);
    const ScalarGains g = realtimeScalarGains();
    y = limiter_.process(y * (g.routeGainLinear * g.outputTrimLinear * g.ceilingAttenuationLinear));
    outputMeter_.update(y);
    return y;
}

std::pair<double, double> RouteDSPChain::processStereo(double left, double right) {
    left = sanitisedInput(left);
    right = sanitisedInput(right);
    if (isMuted()) {
        inputMeter_.update(0.0);
        outputMeter_.update(0.0);
        return {0.0, 0.0};
    }
    inputMeter_.update(std::max(std::abs(left), std::abs(right)));
    auto [l, r] = customEQ_->processStereo(left, right);
    std::tie(l, r) = correctionEQ_->processStereo(l, r);
    std::tie(l, r) = userParametricEQ_->processStereo(l, r);
    const ScalarGains g = realtimeScalarGains();
    const double scalar = g.routeGainLinear * g.outputTrimLinear * g.ceilingAttenuationLinear;
    std::tie(l, r) = limiter_.processStereo(l * scalar, r * scalar);
    outputMeter_.update(std::max(std::abs(l), std::abs(r)));
    return {l, r};
}

} // namespace tarn
