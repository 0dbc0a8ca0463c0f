// The route store's automatic side: what it does when processes and devices change, the
// auto-mode poll and the health checks of live routes. Operations a user asks for are in
// RouteStore.cpp and RouteStoreEdits.cpp.

#include <algorithm>

#include "app/RouteStore.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/models/RouteActivityPolicy.hpp"

namespace tarn {

void RouteStore::updateAutoPolling() {
    const bool anyAuto = std::any_of(routes_.begin(), routes_.end(), [](const AppRoute& r) {
        return r.kind == RouteKind::appTap && r.activationMode == RouteActivationMode::automatic;
    });
    if (!anyAuto) autoPollTimer_.cancel();
    else if (!autoPollTimer_.isActive())
        autoPollTimer_.startRepeating(autoPollSeconds, [this] {
            if (isActivated_) reconcileAutoRoutes();
        });
}

void RouteStore::updateHealthChecks() {
    if (liveRoutes_.empty()) healthTimer_.cancel();
    else if (!healthTimer_.isActive()) healthTimer_.startRepeating(healthCheckSeconds, [this] { checkLiveRoutes(); });
}

void RouteStore::reconcileAutoRoutes() {
    for (const auto& snapshot : std::vector<AppRoute>(routes_)) {
        if (snapshot.kind != RouteKind::appTap || snapshot.activationMode != RouteActivationMode::automatic) continue;
        AppRoute* r = mutableRoute(snapshot.id);
        if (!r) continue;
        const bool sounding = isSounding(*r);
        const bool live = liveEngines_.count(r->id) > 0;
        if (sounding && !live) startAudio(r->id, false);
        else if (!sounding && live) pauseRoute(*r);
    }
}

void RouteStore::handleDiscoveryChange() {
    availableProcesses_ = discovery_.entries();
    changed(Change::processes);
    if (!isActivated_) return;
    retryRefusedCapture();

    dropQuitApplications();

    for (const auto& snapshot : std::vector<AppRoute>(routes_)) {
        if (snapshot.kind != RouteKind::appTap || snapshot.activationMode == RouteActivationMode::automatic) continue;
        AppRoute* r = mutableRoute(snapshot.id);
        if (!r) continue;
        const auto* process = processFor(*r);
        const bool isRunningOutput = process && process->isRunningOutput;
        if (awaitingApplication_.count(r->id)) {
            // A lost route picks its application up again when it comes back.
            if (process) startAudio(r->id, false);
            continue;
        }
        switch (RouteActivityPolicy::transition(r->health, liveEngines_.count(r->id) > 0, isRunningOutput)) {
        case RouteActivityTransition::autoPause: pauseRoute(*r); break;
        case RouteActivityTransition::autoResume: startAudio(r->id, false); break;
        case RouteActivityTransition::none: break;
        }
    }
    reconcileAutoRoutes();
}

// Only the application's exit ends a route; a stream that closed leaves it waiting.
void RouteStore::dropQuitApplications() {
    for (auto it = liveRoutes_.begin(); it != liveRoutes_.end();) {
        const UUID id = it->first;
        if (it->second->follow(availableProcesses_, *options_.processTree) != LiveRoute::Presence::quit) {
            ++it;
            continue;
        }
        it = liveRoutes_.erase(it);
        markStopped(id);
        if (AppRoute* r = mutableRoute(id)) {
            awaitingApplication_.insert(id);
            setHealth(*r, RouteHealth::lost);
            setError(id, std::string(sourceAppStoppedText));
        }
    }
}

void RouteStore::retryRefusedCapture() {
    if (awaitingCapture_.empty()) return;
    captureGranted_.reset();
    for (const UUID& id : std::vector<UUID>(awaitingCapture_.begin(), awaitingCapture_.end())) {
        const AppRoute* r = route(id);
        if (!r || r->activationMode == RouteActivationMode::off) awaitingCapture_.erase(id);
        else startAudio(id, false);
    }
}

void RouteStore::handleDeviceChange() {
    changed(Change::devices);
    if (isActivated_) retryRefusedCapture();
    if (isActivated_) followLayoutDevices();
    for (auto& [id, live] : liveRoutes_) {
        AppRoute* r = mutableRoute(id);
        if (!r || !live->isRunning()) continue;
        const auto before = live->placementProblem();
        auto move = live->followDevices();
        if (move.moved || live->placementProblem() != before) afterStart(*r, *live, move.moved);
        else if (move.failure && !live->isDevicePresent()) {
            // Nowhere left to play: wait for a device.
            awaitingDevice_.insert(id);
            setHealth(*r, RouteHealth::blocked);
            setError(id, std::string(noOutputDeviceText));
        }
    }
    for (const UUID& id : std::vector<UUID>(awaitingDevice_.begin(), awaitingDevice_.end())) {
        const AppRoute* r = route(id);
        if (r && r->activationMode != RouteActivationMode::off) startAudio(id, true);
    }
}

void RouteStore::checkLiveRoutes() {
    // An application that quits after its last stream closed changes nothing the sound server
    // reports: its paused route learns of it here.
    dropQuitApplications();
    for (auto& [id, live] : liveRoutes_) {
        AppRoute* r = mutableRoute(id);
        if (!r || !live->isRunning()) continue;
        if (auto reason = live->interruption()) {
            // The server stopped the route (a graph rate change, say): one fresh start.
            try {
                live->restart();
                afterStart(*r, *live, true);
            } catch (const LiveRoute::Error& e) {
                live->stop();
                markStopped(id);
                setHealth(*r, RouteHealth::lost);
                setError(id, "the route stopped: " + *reason);
            }
            continue;
        }
        const double input = live->chain()->inputMeter().currentPeak();
        if (input > verifiedInputPeak) {
            if (r->health == RouteHealth::active || r->health == RouteHealth::verifying)
                setHealth(*r, RouteHealth::verified);
        } else if (r->health == RouteHealth::active) {
            setHealth(*r, RouteHealth::verifying);
        }
    }
    updateHealthChecks();
}

} // namespace tarn
