#pragma once

#include <cstdint>
#include <string>

#include "core/audio/AudioPlatform.hpp"

namespace tarn {

// Keeps an application's streams away from its normal output while its route is paused: a
// private tap and capture device with no I/O procedure, so the application is heard nowhere
// and streams it opens meanwhile are taken in at once. Resuming starts the route's engine while
// the hold still stands and only then releases it, so no unprocessed sound escapes in between.
//
// Control thread only. `hold` undoes its partial work on failure; `release` may be called any
// number of times and runs on destruction.
class ProcessStreamHold {
public:
    ProcessStreamHold(AudioPlatform& platform, std::uint32_t processObjectID, std::string bundleID);
    ~ProcessStreamHold();
    ProcessStreamHold(const ProcessStreamHold&) = delete;
    ProcessStreamHold& operator=(const ProcessStreamHold&) = delete;

    // The platform status of the step that failed, or noError.
    AudioPlatform::Status hold();
    void release();
    bool isHolding() const { return aggregateDeviceID_ != 0; }

private:
    AudioPlatform& platform_;
    std::uint32_t processObjectID_;
    std::string bundleID_;
    AudioPlatform::ObjectID tapID_ = 0;
    AudioPlatform::ObjectID aggregateDeviceID_ = 0;
};

} // namespace tarn
