#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/dsp/BiquadFilter.hpp"
#include "core/dsp/RetainedBankPublisher.hpp"
#include "core/dsp/StageSections.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

// Runs a profile-shaped filter set (a preamp and an ordered list of parametric filters) on the
// real-time thread. A route holds two: the headphone correction and the user's imported
// parametric equaliser. Each profile lives in its own immutable bank, published atomically and
// kept alive for a second after replacement, so a new profile starts with fresh filter state.
class CorrectionEQ {
public:
    class FilterBank {
    public:
        FilterBank(bool hasProfile, float preampLinear, std::vector<std::unique_ptr<BiquadFilter>> filters);

        const bool hasProfile;
        const float preampLinear;
        const std::vector<std::unique_ptr<BiquadFilter>> filters;

    private:
        friend class CorrectionEQ;
        // Per-block coefficient snapshot, written only by the real-time thread; sized here so
        // the audio path never allocates.
        mutable std::vector<BiquadFloatCoefficients> rtSnapshot_;
    };

    struct ProcessingSnapshot {
        bool isBypassed = true;
        bool hasProfile = false;
        float preampLinear = 1.0f;
        std::span<const BiquadFloatCoefficients> coefficients;
        const FilterBank* bank = nullptr;

        bool isActive() const { return hasProfile && !isBypassed; }
    };

    CorrectionEQ(int channelCount, double sampleRate, UptimeClock clock = {});
    CorrectionEQ(const CorrectionEQ&) = delete;
    CorrectionEQ& operator=(const CorrectionEQ&) = delete;

    // Control thread.
    void loadProfile(const HeadphoneProfile& profile);
    void removeProfile();
    void rebuild(double sampleRate);
    void setBypassed(bool bypassed);
    bool isBypassed() const { return bypassed_.load(std::memory_order_acquire); }
    const std::optional<HeadphoneProfile>& profile() const { return profile_; }
    // The preamp and sections this stage runs now: none (0 dB, no sections) while it is bypassed
    // or holds no profile.
    StageSections runningSections() const;
    int channelCount() const { return channelCount_; }
    double sampleRate() const { return sampleRate_; }
    void setOnChange(std::function<void()> callback) { onChange_ = std::move(callback); }
    void resetStateOnly();
    void resetChannelState(int channel);
    const std::vector<RetainedBankPublisher<FilterBank>::Retained>& retainedBanks() const { return banks_.retained(); }

    // Real-time thread.
    const FilterBank& activeBank() const;
    ProcessingSnapshot processingSnapshot();
    void processBlock(float* buffer, int frameCount, int channel, int stride, const ProcessingSnapshot& snapshot);
    float process(float x, int channel, const ProcessingSnapshot& snapshot);
    void processChannels(std::vector<double>& samples);
    double process(double x);
    std::pair<double, double> processStereo(double left, double right);

    static const std::shared_ptr<const FilterBank>& emptyBank();

private:
    std::shared_ptr<const FilterBank> makeBank(const HeadphoneProfile& profile) const;
    void notify();

    int channelCount_;
    std::atomic<bool> bypassed_{false};
    std::optional<HeadphoneProfile> profile_;
    std::function<void()> onChange_;
    RetainedBankPublisher<FilterBank> banks_;
    double sampleRate_;
};

} // namespace tarn
