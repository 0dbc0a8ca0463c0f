#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/QueueTimer.hpp"
#include "app/RouteStore.hpp"
#include "core/audio/AudioPlatform.hpp"
#include "core/io/PreferencesStore.hpp"

namespace tarn {

class SongMemoryStore;

// The desk as a long-running service: the route store on the control thread's loop, connected
// to the sound server, restored and activated at start, and kept alive across the sound
// server's restarts. When the server goes away, every route is let go (saved first); the
// service reconnects with back-off and, once the server is back, restores the desk and starts
// again every route that was live.
//
// Control thread only.
class DeskService {
public:
    // Connects to the sound server; throws when none answers.
    using PlatformFactory = std::function<std::unique_ptr<AudioPlatform>()>;
    // Whether a platform's connection to its server still stands.
    using ConnectionCheck = std::function<bool(AudioPlatform&)>;

    // The platform says when its server goes (its device listener fires); this slow check is only
    // the safety net for a loss it could not report.
    static constexpr double connectionCheckSeconds = 30.0;
    // Reconnection tries start fast and settle at one a second, so a server that comes back is
    // in use again within a second or two.
    static constexpr double firstRetrySeconds = 0.25;
    static constexpr double maxRetrySeconds = 1.0;

    DeskService(MainQueue& queue, PlatformFactory makePlatform, ConnectionCheck isConnected,
                PreferencesStore preferences, SongMemoryStore* songMemory);
    // Stops every route: the applications go back to their normal output.
    ~DeskService();
    DeskService(const DeskService&) = delete;
    DeskService& operator=(const DeskService&) = delete;

    void start();

    // None while the sound server is away.
    RouteStore* store() { return store_.get(); }
    const RouteStore* store() const { return store_.get(); }
    bool isConnected() const { return store_ != nullptr; }
    // Why the last connection attempt failed, while it does.
    const std::optional<std::string>& connectionProblem() const { return connectionProblem_; }

    // Every store change, and a change of store (connected, lost, reconnected).
    void addChangeListener(std::function<void(RouteStore::Change)> listener) {
        changeListeners_.push_back(std::move(listener));
    }
    void addConnectionListener(std::function<void()> listener) { connectionListeners_.push_back(std::move(listener)); }

    // Each live route's input and output peaks (linear) now.
    nlohmann::json meters() const;

    // Looks whether the server is still there (on the platform's word, and on the check's tick;
    // tests call it directly).
    void checkConnection();

private:
    void connect();
    void lose();

    MainQueue& queue_;
    PlatformFactory makePlatform_;
    ConnectionCheck isConnected_;
    PreferencesStore preferences_;
    SongMemoryStore* songMemory_;
    // Declared before the store: the store goes first.
    std::unique_ptr<AudioPlatform> platform_;
    std::unique_ptr<RouteStore> store_;
    std::set<UUID> liveBeforeLoss_;
    std::optional<std::string> connectionProblem_;
    double retrySeconds_ = firstRetrySeconds;
    AudioPlatform::ListenerToken lossListener_ = 0;
    // Work posted by the platform's threads holds this weakly: a destroyed service is never touched.
    std::shared_ptr<DeskService*> self_ = std::make_shared<DeskService*>(this);
    std::vector<std::function<void(RouteStore::Change)>> changeListeners_;
    std::vector<std::function<void()>> connectionListeners_;
    QueueTimer checkTimer_;
    QueueTimer retryTimer_;
};

} // namespace tarn
