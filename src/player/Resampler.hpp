#pragma once

#include <memory>
#include <stdexcept>
#include <vector>

namespace tarn {

// Converts interleaved float frames from one rate to another (FFmpeg's resampler, on the
// producer's thread, never in a callback). One stream: it keeps the filter's history between
// calls, so consecutive blocks, and consecutive tracks of the same rate, join seamlessly.
class Resampler {
public:
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    Resampler(int channelCount, int inputRate, int outputRate);
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    int inputRate() const { return inputRate_; }
    int outputRate() const { return outputRate_; }
    // Converts `frames` frames and returns the frames ready so far (valid until the next call);
    // `frames` 0 flushes what the filter still holds (at the end of the stream).
    const std::vector<float>& process(const float* interleaved, int frames);

private:
    struct State;
    std::unique_ptr<State> state_;
    int channelCount_;
    int inputRate_;
    int outputRate_;
    std::vector<float> output_;
};

} // namespace tarn
