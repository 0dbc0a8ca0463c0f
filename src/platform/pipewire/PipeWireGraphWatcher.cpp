#include "platform/pipewire/PipeWireGraphWatcher.hpp"

#include <algorithm>
#include <set>

namespace tarn {

PipeWireGraphWatcher::PipeWireGraphWatcher(const PipeWireGraph& graph)
    : applications_(PipeWireApplication::list(graph)),
      devices_(PipeWireDevice::list(graph)),
      defaultSinkName_(graph.defaultSinkName) {
    remember(applications_);
}

void PipeWireGraphWatcher::update(const PipeWireGraph& g) {
    auto apps = PipeWireApplication::list(g);
    auto devices = PipeWireDevice::list(g);
    bool processesChanged = apps.size() != applications_.size();
    for (size_t i = 0; !processesChanged && i < apps.size(); ++i)
        processesChanged = apps[i].objectID != applications_[i].objectID || apps[i].pid != applications_[i].pid ||
                           apps[i].streamNodeIDs != applications_[i].streamNodeIDs;
    std::set<AudioPlatform::ObjectID> runningChanged;
    for (const auto& app : apps) {
        auto* before = PipeWireApplication::withStream(applications_, app.objectID);
        if (!before || before->isRunningOutput != app.isRunningOutput) runningChanged.insert(app.objectID);
    }
    bool devicesChanged = devices != devices_ || g.defaultSinkName != defaultSinkName_;
    remember(apps);
    applications_ = std::move(apps);
    devices_ = std::move(devices);
    defaultSinkName_ = g.defaultSinkName;

    // A listener may add or remove listeners.
    auto copy = listeners_;
    for (auto& [token, l] : copy) {
        if ((l.kind == Kind::processes && processesChanged) || (l.kind == Kind::devices && devicesChanged) ||
            (l.kind == Kind::running && runningChanged.count(l.process)))
            l.fn();
    }
}

void PipeWireGraphWatcher::serverGone() {
    auto copy = listeners_;
    for (auto& [token, l] : copy)
        if (l.kind == Kind::processes || l.kind == Kind::devices) l.fn();
}

void PipeWireGraphWatcher::remember(const std::vector<PipeWireApplication>& applications) {
    for (const auto& app : applications)
        for (AudioPlatform::ObjectID node : app.streamNodeIDs) seenApplications_[node] = app;
    // A desk runs for days: forget the oldest streams (node ids only grow) past a bound.
    while (seenApplications_.size() > maxSeenStreams) seenApplications_.erase(seenApplications_.begin());
}

void PipeWireGraphWatcher::addListener(AudioPlatform::ListenerToken token, Kind kind, AudioPlatform::ObjectID process,
                                       AudioPlatform::ChangeListener listener) {
    listeners_[token] = {kind, process, std::move(listener)};
}

bool PipeWireGraphWatcher::removeListener(AudioPlatform::ListenerToken token) { return listeners_.erase(token) != 0; }

const PipeWireApplication* PipeWireGraphWatcher::application(AudioPlatform::ObjectID process) const {
    return PipeWireApplication::withStream(applications_, process);
}

const PipeWireApplication* PipeWireGraphWatcher::seenApplication(AudioPlatform::ObjectID streamNodeID) const {
    auto it = seenApplications_.find(streamNodeID);
    return it == seenApplications_.end() ? nullptr : &it->second;
}

const PipeWireDevice* PipeWireGraphWatcher::device(AudioPlatform::ObjectID nodeID) const {
    auto it = std::find_if(devices_.begin(), devices_.end(), [&](const PipeWireDevice& d) { return d.nodeID == nodeID; });
    return it == devices_.end() ? nullptr : &*it;
}

const PipeWireDevice* PipeWireGraphWatcher::deviceWithUID(const std::string& uid) const {
    auto it = std::find_if(devices_.begin(), devices_.end(), [&](const PipeWireDevice& d) { return d.uid == uid; });
    return it == devices_.end() ? nullptr : &*it;
}

const PipeWireDevice* PipeWireGraphWatcher::defaultDevice() const {
    auto it = std::find_if(devices_.begin(), devices_.end(), [](const PipeWireDevice& d) { return d.isDefault; });
    return it == devices_.end() ? nullptr : &*it;
}

} // namespace tarn
