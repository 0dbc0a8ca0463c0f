#include "core/audio/ProcessStreamHold.hpp"

namespace tarn {

ProcessStreamHold::ProcessStreamHold(AudioPlatform& platform, std::uint32_t processObjectID, std::string bundleID)
    : platform_(platform), processObjectID_(processObjectID), bundleID_(std::move(bundleID)) {}

ProcessStreamHold::~ProcessStreamHold() { release(); }

AudioPlatform::Status ProcessStreamHold::hold() {
    if (isHolding()) return AudioPlatform::noError;
    AudioPlatform::TapDescription description;
    description.processes = {processObjectID_};
    description.name = "Tarn Hold " + bundleID_;
    if (auto status = platform_.createProcessTap(description, tapID_)) {
        tapID_ = 0;
        return status;
    }
    std::string uid;
    AudioPlatform::AggregateDeviceDescription aggregate;
    auto status = platform_.tapUID(tapID_, uid);
    if (status == AudioPlatform::noError) {
        aggregate.uid = "com.tarn.aggregate." + uid;
        aggregate.name = "Tarn Hold " + bundleID_;
        aggregate.taps = {{uid, true}};
        status = platform_.createAggregateDevice(aggregate, aggregateDeviceID_);
    }
    if (status != AudioPlatform::noError) {
        aggregateDeviceID_ = 0;
        release();
    }
    return status;
}

void ProcessStreamHold::release() {
    if (aggregateDeviceID_ != 0) platform_.destroyAggregateDevice(aggregateDeviceID_);
    aggregateDeviceID_ = 0;
    if (tapID_ != 0) platform_.destroyProcessTap(tapID_);
    tapID_ = 0;
}

} // namespace tarn
