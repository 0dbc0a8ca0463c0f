#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "core/dsp/BiquadCoefficients.hpp"

namespace tarn {

// One second-order section applied to N channels. The control thread replaces the coefficients
// while the real-time thread runs the filter: the set crosses through a sequence lock (an
// odd/even version counter around atomic bit patterns), so the audio thread never waits and
// never sees half of one set and half of another.
class BiquadFilter {
public:
    // The four history values of one channel, single precision whatever the caller works in.
    struct ChannelState {
        float x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        bool operator==(const ChannelState&) const = default;
    };

    static constexpr int snapshotAttempts = 4;

    explicit BiquadFilter(int channelCount);
    BiquadFilter(const BiquadFilter&) = delete;
    BiquadFilter& operator=(const BiquadFilter&) = delete;

    int channelCount() const { return channelCount_; }

    // Consistent double read for non-real-time readers (meters, response display).
    BiquadCoefficients coefficients() const;
    // Control thread only: one writer.
    void setCoefficients(const BiquadCoefficients& c);

    // Real-time consistent read: at most four attempts, then the last set read consistently.
    BiquadFloatCoefficients activeFloatSnapshot();

    double process(double x);
    double process(double x, int channel);
    float process(float x, int channel);
    float process(float x, int channel, const BiquadFloatCoefficients& c);
    std::pair<double, double> processStereo(double left, double right);

    // Filters frameCount samples of one channel of an interleaved buffer in place.
    void processBlock(float* buffer, int frameCount, int channel, int stride,
                      const BiquadFloatCoefficients& c);

    void resetChannel(int channel);
    void reset();

    // The history of one channel, for kernels that run several channels or sections at once.
    // storeChannelState applies the end-of-block rule: a state with any non-finite value is
    // stored as all zeros.
    ChannelState channelState(int channel) const;
    void storeChannelState(int channel, const ChannelState& s);

    // True when all four values are finite (exponent field not all ones).
    static bool isFiniteState(const ChannelState& s);

private:
    void checkChannel(int channel) const;
    // Advances the channel by one sample; false (and a cleared channel) when y is not finite.
    bool step(float x, int channel, const BiquadFloatCoefficients& c, float& y);
    float processOne(float x, int channel, const BiquadFloatCoefficients& c);

    std::atomic<std::uint64_t> b0_, b1_, b2_, a1_, a2_;
    std::atomic<std::uint32_t> fb0_, fb1_, fb2_, fa1_, fa2_;
    std::atomic<std::uint32_t> version_{0};
    BiquadFloatCoefficients rtLastGoodFloat_;
    mutable std::mutex getterMutex_;   // non-real-time readers only
    mutable BiquadCoefficients getterLastGood_;
    int channelCount_;
    std::vector<ChannelState> state_; // one allocation: a channel's history shares a cache line
};

} // namespace tarn
