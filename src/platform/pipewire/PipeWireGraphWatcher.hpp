#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {

// The platform's picture of the applications that play and of the output devices, as of the
// last graph change, and the listeners told when it changes.
//
// Loop lock held for everything; listeners are called on the loop thread.
class PipeWireGraphWatcher {
public:
    enum class Kind { processes, running, devices };

    explicit PipeWireGraphWatcher(const PipeWireGraph& graph);

    // Takes in the graph after a change and calls the listeners of what changed: the process
    // list (applications, their pids or streams), one application's playing state, the devices
    // or the default output.
    void update(const PipeWireGraph& graph);
    // The server went away: every process-list and device listener hears of it, so that whoever
    // watches finds out at once rather than at its next look.
    void serverGone();

    void addListener(AudioPlatform::ListenerToken token, Kind kind, AudioPlatform::ObjectID process,
                     AudioPlatform::ChangeListener listener);
    bool removeListener(AudioPlatform::ListenerToken token);
    void removeAllListeners() { listeners_.clear(); }

    const std::vector<PipeWireApplication>& applications() const { return applications_; }
    // The listed application of that process object, or null.
    const PipeWireApplication* application(AudioPlatform::ObjectID process) const;
    // The application one of whose streams was that node at any time on this connection: one
    // whose streams have all closed (a browser after a pause) can still be held for the streams
    // it opens next. Null when never seen.
    const PipeWireApplication* seenApplication(AudioPlatform::ObjectID streamNodeID) const;

    const std::vector<PipeWireDevice>& devices() const { return devices_; }
    const PipeWireDevice* device(AudioPlatform::ObjectID nodeID) const;
    const PipeWireDevice* deviceWithUID(const std::string& uid) const;
    const PipeWireDevice* defaultDevice() const;

private:
    struct Listener {
        Kind kind;
        AudioPlatform::ObjectID process = 0;
        AudioPlatform::ChangeListener fn;
    };
    static constexpr std::size_t maxSeenStreams = 4096;

    void remember(const std::vector<PipeWireApplication>& applications);

    std::vector<PipeWireApplication> applications_;
    std::map<AudioPlatform::ObjectID, PipeWireApplication> seenApplications_;
    std::vector<PipeWireDevice> devices_;
    std::string defaultSinkName_;
    std::map<AudioPlatform::ListenerToken, Listener> listeners_;
};

} // namespace tarn
