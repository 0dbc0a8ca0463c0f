#include "platform/pipewire/PipeWireTap.hpp"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <pipewire/pipewire.h>
#include <unistd.h>

#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {

AudioPlatform::Status PipeWireTap::make(const PipeWireGraph& graph, const AudioPlatform::TapDescription& description,
                                        const PipeWireApplication* application, PipeWireTap& tap) {
    tap.name = description.name;
    tap.format.sampleRate = graph.clockRate;
    if (!application) {
        // The permission probe: capture needs the session manager's metadata (to move streams),
        // the adapter factory (to make the capture sink) and sight of the output devices.
        bool canMove = graph.hasDefaultMetadata && (graph.defaultMetadataPermissions & PW_PERM_W) &&
                       (graph.defaultMetadataPermissions & PW_PERM_X);
        bool canCreate = std::find(graph.factories.begin(), graph.factories.end(), "adapter") != graph.factories.end();
        if (!canMove || !canCreate || PipeWireDevice::list(graph).empty()) return -EACCES;
        tap.isProbe = true;
    } else {
        tap.pid = application->pid;
        tap.identity = application->identity;
    }
    if (description.isStereoMixdown) {
        tap.format.channelCount = 2;
        tap.positions = {"FL", "FR"};
    } else {
        auto devices = PipeWireDevice::list(graph);
        auto it = std::find_if(devices.begin(), devices.end(), [&](auto& d) { return d.uid == description.deviceUID; });
        if (it == devices.end()) return -ENODEV;
        if (description.streamIndex != 0 || it->channelCount <= 0) return -EINVAL;
        tap.format.channelCount = static_cast<uint32_t>(it->channelCount);
        tap.positions = it->positions.size() == tap.format.channelCount
                            ? it->positions
                            : PipeWireDevice::defaultPositions(tap.format.channelCount);
    }
    return AudioPlatform::noError;
}

std::string PipeWireTap::uid(AudioPlatform::ObjectID id) { return fmt::format("tarn-tap-{}-{}", getpid(), id); }

} // namespace tarn
