#pragma once

#include <atomic>
#include <utility>

namespace tarn {

// A memoryless soft clipper at the end of a route: untouched below the knee, then a tanh curve
// that approaches (and never reaches) the ceiling, continuous in value and slope at the knee.
class Limiter {
public:
    static constexpr double kneeStart = 0.83;
    static constexpr double ceiling = 0.98;
    static constexpr double scale = 6.666666666666666;
    static constexpr double thresholdLinear = 0.98;

    explicit Limiter(double sampleRate = 48000.0) {}

    // Single-sample entry points: the library tanh.
    double process(double x);
    float process(float x);
    std::pair<double, double> processStereo(double left, double right);

    // Block path: the same law in single precision with a rational tanh, no library call per
    // sample. `clipping` then reports whether any sample of the block passed the knee. As the
    // last stage of a route it also makes sure nothing non-finite reaches a device: a NaN
    // leaves as 0 (an infinity is limited like any loud sample). Returns the block's output peak.
    float processBlock(float* samples, int sampleCount);
    // The rational-approximation law for one sample (no flag update).
    static float saturate(float x);

    bool isClipping() const { return clipping_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> clipping_{false};
};

} // namespace tarn
