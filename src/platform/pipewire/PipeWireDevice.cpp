#include "platform/pipewire/PipeWireDevice.hpp"

#include <sstream>

#include <fmt/format.h>

namespace tarn {

namespace {

// "[ FL FR ]", "FL,FR" and "FL FR" all name the same layout.
std::vector<std::string> parsePositions(std::string text) {
    for (char& c : text)
        if (c == '[' || c == ']' || c == ',' || c == '"') c = ' ';
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

} // namespace

std::vector<PipeWireDevice> PipeWireDevice::list(const PipeWireGraph& graph) {
    std::vector<PipeWireDevice> devices;
    for (const auto& node : graph.nodes) {
        if (node.mediaClass() != "Audio/Sink" || node.isTarnNode()) continue;
        PipeWireDevice d;
        d.nodeID = node.id;
        d.uid = node.prop("node.name");
        d.name = node.prop("node.description");
        if (d.name.empty()) d.name = node.prop("node.nick");
        if (d.name.empty()) d.name = d.uid;
        d.isDefault = !graph.defaultSinkName.empty() && d.uid == graph.defaultSinkName;
        d.positions = parsePositions(node.prop("audio.position"));
        if (d.positions.empty()) {
            for (const auto& ch : node.inputPortChannels)
                if (!ch.empty()) d.positions.push_back(ch);
        }
        int declared = 0;
        try {
            declared = node.prop("audio.channels").empty() ? 0 : std::stoi(node.prop("audio.channels"));
        } catch (...) {
            declared = 0;
        }
        d.channelCount = declared > 0 ? declared
                         : !d.positions.empty() ? static_cast<int>(d.positions.size())
                                                : static_cast<int>(node.inputPortCount);
        devices.push_back(std::move(d));
    }
    return devices;
}

std::vector<std::string> PipeWireDevice::defaultPositions(uint32_t channels) {
    switch (channels) {
    case 1: return {"MONO"};
    case 2: return {"FL", "FR"};
    case 4: return {"FL", "FR", "RL", "RR"};
    case 6: return {"FL", "FR", "FC", "LFE", "RL", "RR"};
    case 8: return {"FL", "FR", "FC", "LFE", "RL", "RR", "SL", "SR"};
    default: {
        std::vector<std::string> out;
        for (uint32_t i = 0; i < channels; ++i) out.push_back(fmt::format("AUX{}", i));
        return out;
    }
    }
}

} // namespace tarn
