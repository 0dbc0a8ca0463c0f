#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/MainQueue.hpp"
#include "core/dsp/UptimeClock.hpp"

namespace tarn {

// Keeps the list of applications the sound server knows about, each with its pid, identity,
// display name and whether it is playing, for the route picker and the route store.
//
// The server's change notifications arrive on a platform thread; they are forwarded to the main
// queue and coalesced there into at most one refresh every 0.3 s: the first notification after a
// quiet spell is served at once, a burst once more at its trailing edge.
//
// Everything except the listeners runs on the control thread (the main queue's), including
// construction and destruction. Destruction removes every listener the service installed;
// refreshes already scheduled then do nothing.
class ProcessDiscoveryService {
public:
    struct Entry {
        std::uint32_t objectID = 0;
        std::int32_t pid = 0;
        std::string bundleID; // empty when unknown
        std::string displayName;
        bool isRunningOutput = false;

        std::uint32_t id() const { return objectID; }
        bool operator==(const Entry&) const = default;
    };

    static constexpr double minimumRefreshIntervalSeconds = 0.3;

    ProcessDiscoveryService(AudioPlatform& platform, MainQueue& mainQueue, UptimeClock clock = {});
    ~ProcessDiscoveryService();
    ProcessDiscoveryService(const ProcessDiscoveryService&) = delete;
    ProcessDiscoveryService& operator=(const ProcessDiscoveryService&) = delete;

    // Installs the process-list listener once (a failed installation is retried by the next
    // call), then refreshes at once.
    void start();
    // Rebuilds `entries` now; calls `onChange` when the list differs from the previous one.
    void refresh();

    // In the server's order; not sorted or filtered (consumers drop browsers' helpers and this
    // program itself).
    const std::vector<Entry>& entries() const { return entries_; }
    // Called on the control thread after `entries` changed.
    std::function<void()> onChange;

    bool isListenerInstalled() const { return listenerInstalled_; }
    std::size_t runningOutputListenerCount() const { return runningOutputListeners_.size(); }

private:
    void listenerFired();
    void scheduleRefresh();
    void synchroniseRunningOutputListeners(const std::vector<AudioPlatform::ObjectID>& processes);
    std::string displayNameFor(std::int32_t pid, const std::string& bundleID);

    AudioPlatform& platform_;
    MainQueue& mainQueue_;
    UptimeClock clock_;

    std::vector<Entry> entries_;
    bool listenerInstalled_ = false;
    AudioPlatform::ListenerToken processListToken_ = 0;
    // Process object -> its running-output listener.
    std::map<AudioPlatform::ObjectID, AudioPlatform::ListenerToken> runningOutputListeners_;
    bool pendingRefresh_ = false;
    double lastRefreshUptime_ = -1.0e9;
    // Work posted to the main queue holds this weakly, so a destroyed service is never touched.
    std::shared_ptr<ProcessDiscoveryService*> self_;
};

} // namespace tarn
