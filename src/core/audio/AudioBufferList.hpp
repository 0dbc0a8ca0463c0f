#pragma once

#include <cstdint>

namespace tarn {

// The blocks a platform hands to a real-time callback: one buffer of interleaved frames, or one
// buffer per channel (non-interleaved). Samples are 32-bit floats. The list and its buffers are
// owned by the platform and valid only during the callback.
struct AudioBufferList {
    struct Buffer {
        std::uint32_t channelCount = 0; // interleaved channels in this buffer
        std::uint32_t byteSize = 0;     // bytes of sample data in `data`
        void* data = nullptr;
    };

    std::uint32_t bufferCount = 0;
    Buffer* buffers = nullptr;
};

} // namespace tarn
