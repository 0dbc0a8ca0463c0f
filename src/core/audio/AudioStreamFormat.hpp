#pragma once

#include <cstdint>

namespace tarn {

// The format of a capture or render stream. Samples are always 32-bit floats; interleaving is
// told by the buffer list of each cycle.
struct AudioStreamFormat {
    double sampleRate = 0.0;
    std::uint32_t channelCount = 0;

    bool operator==(const AudioStreamFormat&) const = default;
};

} // namespace tarn
