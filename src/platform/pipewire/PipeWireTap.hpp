#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/AudioStreamFormat.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn {

// What a tap is on PipeWire: the record of which application is captured (its pid, else its
// identity, so that streams it opens later are recognised) and in which format (the graph's
// rate; two channels, or the chosen sink's channel layout). Nothing exists in the graph until a
// capture sink is made from it.
struct PipeWireTap {
    AudioPlatform::ObjectID id = 0;
    int32_t pid = 0;
    std::string identity;
    std::string name;
    // Made with no process, to ask whether capture is permitted at all; no sink is made from it.
    bool isProbe = false;
    AudioStreamFormat format;
    std::vector<std::string> positions;

    // Fills in everything but the id from the graph: `application` is the one to capture (null
    // for the permission probe, which an empty process list asks for).
    static AudioPlatform::Status make(const PipeWireGraph& graph, const AudioPlatform::TapDescription& description,
                                      const PipeWireApplication* application, PipeWireTap& tap);
    // What the engines know the tap by, unique to this process.
    static std::string uid(AudioPlatform::ObjectID id);
};

} // namespace tarn
