#include "core/dsp/BiquadFilter.hpp"

#include <bit>
#include <cmath>
#include <cstdlib>

namespace tarn {

namespace {
constexpr std::uint32_t floatMagnitudeMask = 0x7fffffffu;
constexpr std::uint32_t largestFiniteFloatBits = 0x7f7fffffu;

inline bool isFiniteFloat(float v) {
    return (std::bit_cast<std::uint32_t>(v) & floatMagnitudeMask) <= largestFiniteFloatBits;
}
} // namespace

BiquadFilter::BiquadFilter(int channelCount)
    : b0_(std::bit_cast<std::uint64_t>(1.0)), b1_(0), b2_(0), a1_(0), a2_(0),
      fb0_(std::bit_cast<std::uint32_t>(1.0f)), fb1_(0), fb2_(0), fa1_(0), fa2_(0),
      channelCount_(channelCount < 1 ? 1 : channelCount),
      state_(std::size_t(channelCount_)) {}

void BiquadFilter::setCoefficients(const BiquadCoefficients& c) {
    const std::uint32_t v = version_.load(std::memory_order_relaxed);
    version_.store(v + 1);
    b0_.store(std::bit_cast<std::uint64_t>(c.b0));
    b1_.store(std::bit_cast<std::uint64_t>(c.b1));
    b2_.store(std::bit_cast<std::uint64_t>(c.b2));
    a1_.store(std::bit_cast<std::uint64_t>(c.a1));
    a2_.store(std::bit_cast<std::uint64_t>(c.a2));
    const BiquadFloatCoefficients f(c);
    fb0_.store(std::bit_cast<std::uint32_t>(f.b0));
    fb1_.store(std::bit_cast<std::uint32_t>(f.b1));
    fb2_.store(std::bit_cast<std::uint32_t>(f.b2));
    fa1_.store(std::bit_cast<std::uint32_t>(f.a1));
    fa2_.store(std::bit_cast<std::uint32_t>(f.a2));
    version_.store(v + 2);
}

// The field loads are acquire loads: a value written after the writer's odd store then
// guarantees that the second version load sees that store, so a torn set is always detected.
BiquadFloatCoefficients BiquadFilter::activeFloatSnapshot() {
    constexpr auto acq = std::memory_order_acquire;
    for (int attempt = 0; attempt < snapshotAttempts; ++attempt) {
        const std::uint32_t before = version_.load(acq);
        if (before & 1u) continue;
        const BiquadFloatCoefficients c(std::bit_cast<float>(fb0_.load(acq)), std::bit_cast<float>(fb1_.load(acq)),
                                        std::bit_cast<float>(fb2_.load(acq)), std::bit_cast<float>(fa1_.load(acq)),
                                        std::bit_cast<float>(fa2_.load(acq)));
        if (version_.load(acq) == before) {
            rtLastGoodFloat_ = c;
            return c;
        }
    }
    return rtLastGoodFloat_;
}

BiquadCoefficients BiquadFilter::coefficients() const {
    constexpr auto acq = std::memory_order_acquire;
    std::lock_guard lock(getterMutex_);
    for (int attempt = 0; attempt < snapshotAttempts; ++attempt) {
        const std::uint32_t before = version_.load(acq);
        if (before & 1u) continue;
        const BiquadCoefficients c(std::bit_cast<double>(b0_.load(acq)), std::bit_cast<double>(b1_.load(acq)),
                                   std::bit_cast<double>(b2_.load(acq)), std::bit_cast<double>(a1_.load(acq)),
                                   std::bit_cast<double>(a2_.load(acq)));
        if (version_.load(acq) == before) {
            getterLastGood_ = c;
            return c;
        }
    }
    return getterLastGood_;
}

void BiquadFilter::checkChannel(int channel) const {
    if (channel < 0 || channel >= channelCount_) std::abort();
}

bool BiquadFilter::step(float x, int channel, const BiquadFloatCoefficients& c, float& y) {
    checkChannel(channel);
    ChannelState& s = state_[std::size_t(channel)];
    y = c.b0 * x + c.b1 * s.x1 + c.b2 * s.x2 - c.a1 * s.y1 - c.a2 * s.y2;
    if (!isFiniteFloat(y)) {
        s = ChannelState{};
        return false;
    }
    s = {x, s.x1, y, s.y1};
    return true;
}

float BiquadFilter::processOne(float x, int channel, const BiquadFloatCoefficients& c) {
    float y;
    return step(x, channel, c, y) ? y : x;
}

double BiquadFilter::process(double x) { return process(x, 0); }

double BiquadFilter::process(double x, int channel) {
    float y;
    // A non-finite result hands back the caller's own sample, not its narrowed copy.
    return step(static_cast<float>(x), channel, activeFloatSnapshot(), y) ? static_cast<double>(y) : x;
}

float BiquadFilter::process(float x, int channel) { return processOne(x, channel, activeFloatSnapshot()); }

float BiquadFilter::process(float x, int channel, const BiquadFloatCoefficients& c) {
    return processOne(x, channel, c);
}

std::pair<double, double> BiquadFilter::processStereo(double left, double right) {
    const BiquadFloatCoefficients c = activeFloatSnapshot();
    float l, r;
    const double outL = step(static_cast<float>(left), 0, c, l) ? static_cast<double>(l) : left;
    const double outR = step(static_cast<float>(right), 1, c, r) ? static_cast<double>(r) : right;
    return {outL, outR};
}

void BiquadFilter::processBlock(float* buffer, int frameCount, int channel, int stride,
                                const BiquadFloatCoefficients& c) {
    checkChannel(channel);
    ChannelState s = state_[std::size_t(channel)];
    float* p = buffer + channel;
    for (int i = 0; i < frameCount; ++i, p += stride) {
        const float x = *p;
        const float y = c.b0 * x + c.b1 * s.x1 + c.b2 * s.x2 - c.a1 * s.y1 - c.a2 * s.y2;
        s.x2 = s.x1;
        s.x1 = x;
        s.y2 = s.y1;
        s.y1 = y;
        *p = y;
    }
    storeChannelState(channel, s);
}

bool BiquadFilter::isFiniteState(const ChannelState& s) {
    return isFiniteFloat(s.x1) && isFiniteFloat(s.x2) && isFiniteFloat(s.y1) && isFiniteFloat(s.y2);
}

BiquadFilter::ChannelState BiquadFilter::channelState(int channel) const {
    checkChannel(channel);
    return state_[std::size_t(channel)];
}

void BiquadFilter::storeChannelState(int channel, const ChannelState& s) {
    checkChannel(channel);
    state_[std::size_t(channel)] = isFiniteState(s) ? s : ChannelState{};
}

void BiquadFilter::resetChannel(int channel) { storeChannelState(channel, ChannelState{}); }

void BiquadFilter::reset() {
    for (int ch = 0; ch < channelCount_; ++ch) resetChannel(ch);
}

} // namespace tarn
