#include "core/audio/ProcessDiscoveryService.hpp"

#include <algorithm>

namespace tarn {

ProcessDiscoveryService::ProcessDiscoveryService(AudioPlatform& platform, MainQueue& mainQueue,
                                                 UptimeClock clock)
    : platform_(platform),
      mainQueue_(mainQueue),
      clock_(std::move(clock)),
      self_(std::make_shared<ProcessDiscoveryService*>(this)) {}

ProcessDiscoveryService::~ProcessDiscoveryService() {
    if (listenerInstalled_) platform_.removeListener(processListToken_);
    for (const auto& [process, token] : runningOutputListeners_) platform_.removeListener(token);
    self_.reset();
}

void ProcessDiscoveryService::start() {
    if (!listenerInstalled_) {
        // One listener serves the process list and every running-output flag. It runs on a
        // platform thread and only hops to the main queue.
        AudioPlatform::ListenerToken token = 0;
        if (platform_.addProcessListListener([this] { listenerFired(); }, token) == AudioPlatform::noError) {
            processListToken_ = token;
            listenerInstalled_ = true;
        }
    }
    refresh();
}

void ProcessDiscoveryService::listenerFired() {
    // Platform thread: touch nothing of the service here.
    mainQueue_.async([weak = std::weak_ptr<ProcessDiscoveryService*>(self_)] {
        if (auto self = weak.lock()) (*self)->scheduleRefresh();
    });
}

void ProcessDiscoveryService::scheduleRefresh() {
    if (pendingRefresh_) return;
    const double delay = lastRefreshUptime_ - clock_.now() + minimumRefreshIntervalSeconds;
    if (delay <= 0) {
        refresh();
        return;
    }
    pendingRefresh_ = true;
    mainQueue_.asyncAfter(delay, [weak = std::weak_ptr<ProcessDiscoveryService*>(self_)] {
        if (auto self = weak.lock()) {
            (*self)->pendingRefresh_ = false;
            (*self)->refresh();
        }
    });
}

void ProcessDiscoveryService::synchroniseRunningOutputListeners(const std::vector<AudioPlatform::ObjectID>& processes) {
    for (auto it = runningOutputListeners_.begin(); it != runningOutputListeners_.end();) {
        if (std::find(processes.begin(), processes.end(), it->first) == processes.end()) {
            platform_.removeListener(it->second);
            it = runningOutputListeners_.erase(it);
        } else {
            ++it;
        }
    }
    for (auto process : processes) {
        if (runningOutputListeners_.contains(process)) continue;
        AudioPlatform::ListenerToken token = 0;
        // A failed registration is not recorded, so the next refresh tries again.
        if (platform_.addRunningOutputListener(process, [this] { listenerFired(); }, token) == AudioPlatform::noError) {
            runningOutputListeners_.emplace(process, token);
        }
    }
}

std::string ProcessDiscoveryService::displayNameFor(std::int32_t pid, const std::string& bundleID) {
    if (auto app = platform_.runningApplication(pid)) {
        if (app->localizedName && !app->localizedName->empty()) return *app->localizedName;
        if (app->bundleIdentifier && !app->bundleIdentifier->empty()) return *app->bundleIdentifier;
    }
    if (!bundleID.empty()) return bundleID;
    return "PID " + std::to_string(pid);
}

void ProcessDiscoveryService::refresh() {
    lastRefreshUptime_ = clock_.now();

    std::vector<AudioPlatform::ObjectID> processes;
    if (platform_.processObjectList(processes) != AudioPlatform::noError) processes.clear();
    synchroniseRunningOutputListeners(processes);

    std::vector<Entry> fresh;
    fresh.reserve(processes.size());
    for (auto process : processes) {
        Entry entry;
        entry.objectID = process;
        if (platform_.processPID(process, entry.pid) != AudioPlatform::noError) continue;
        if (platform_.processBundleID(process, entry.bundleID) != AudioPlatform::noError) entry.bundleID.clear();
        if (platform_.processIsRunningOutput(process, entry.isRunningOutput) != AudioPlatform::noError) {
            entry.isRunningOutput = false;
        }
        entry.displayName = displayNameFor(entry.pid, entry.bundleID);
        fresh.push_back(std::move(entry));
    }

    if (fresh != entries_) {
        entries_ = std::move(fresh);
        if (onChange) onChange();
    }
}

} // namespace tarn
