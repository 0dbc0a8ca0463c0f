#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn {

// One output device: a sink node. Its UID is the node name, which survives restarts.
struct PipeWireDevice {
    uint32_t nodeID = 0;
    std::string uid;
    std::string name;
    bool isDefault = false;
    int channelCount = 0;
    std::vector<std::string> positions; // "FL", "FR", ... when known

    bool operator==(const PipeWireDevice&) const = default;

    // The sinks of a graph in registry order; Tarn's own capture sinks are not devices.
    static std::vector<PipeWireDevice> list(const PipeWireGraph& graph);
    // The usual layout for a channel count, for a device that does not name its positions.
    static std::vector<std::string> defaultPositions(uint32_t channels);
};

} // namespace tarn
