#include "app/RouteStore.hpp"

#include <algorithm>

#include <spdlog/spdlog.h>

#include "app/RouteChainSettings.hpp"
#include "core/audio/AudioCapturePermission.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/io/RouteStatePersistence.hpp"

namespace tarn {

RouteStore::RouteStore(AudioPlatform& platform, MainQueue& mainQueue, PreferencesStore preferences, Options options)
    : platform_(platform), mainQueue_(mainQueue), options_(std::move(options)), preferences_(std::move(preferences)),
      presets_(preferences_), discovery_(platform, mainQueue, options_.clock), devices_(platform, mainQueue),
      glides_(mainQueue, [this](const UUID& id) { return dspChain(id); }),
      aiTune_(preferences_, options_.songMemory), layouts_(preferences_), aiTimer_(mainQueue), autoPollTimer_(mainQueue),
      healthTimer_(mainQueue), saveTimer_(mainQueue) {
    // The end of a glide lets the save it held back go ahead.
    glides_.onSettled = [this] { scheduleStatePersist(); };
    presets_.setObserver([this](const std::vector<EQPreset>&) { changed(Change::presets); });
}

RouteStore::~RouteStore() {
    discovery_.onChange = nullptr;
    devices_.onChange = nullptr;
    if (saveTimer_.isActive() || glides_.isInFlight()) persistStateNow();
    liveRoutes_.clear(); // the applications go back to their normal output
}

// ---- state -----------------------------------------------------------------------------------

const AppRoute* RouteStore::route(const UUID& id) const {
    auto it = std::find_if(routes_.begin(), routes_.end(), [&](const AppRoute& r) { return r.id == id; });
    return it == routes_.end() ? nullptr : &*it;
}

AppRoute* RouteStore::mutableRoute(const UUID& id) { return const_cast<AppRoute*>(route(id)); }

const std::vector<OutputDeviceInfo>& RouteStore::outputDevices() const { return devices_.entries(); }

RouteDSPChain* RouteStore::dspChain(const UUID& id) const {
    auto it = liveRoutes_.find(id);
    return it != liveRoutes_.end() && it->second->isRunning() ? it->second->chain().get() : nullptr;
}

const LiveRoute* RouteStore::liveRoute(const UUID& id) const {
    auto it = liveRoutes_.find(id);
    return it == liveRoutes_.end() ? nullptr : it->second.get();
}

void RouteStore::changed(Change change) {
    if (onChange) onChange(change);
}

void RouteStore::editRoute(const UUID&) {
    changed(Change::routes);
    scheduleStatePersist();
}

void RouteStore::setHealth(AppRoute& route, RouteHealth health) {
    if (route.health == health) return;
    route.health = health;
    editRoute(route.id);
}

void RouteStore::setError(const UUID& id, std::optional<std::string> text) {
    if (text) {
        auto [it, inserted] = lastStartError_.try_emplace(id, *text);
        if (!inserted && it->second == *text) return;
        it->second = *text;
    } else if (!lastStartError_.erase(id)) {
        return;
    }
    changed(Change::errors);
}

// ---- start-up ----------------------------------------------------------------------------------

void RouteStore::start() {
    restorePersistedState();
    discovery_.onChange = [this] { handleDiscoveryChange(); };
    devices_.onChange = [this] { handleDeviceChange(); };
    devices_.start();
    discovery_.start();
    availableProcesses_ = discovery_.entries();
    changed(Change::processes);
}

void RouteStore::activateRestoredRoutes() {
    isActivated_ = true;
    followLayoutDevices();
    for (const auto& r : std::vector<AppRoute>(routes_))
        if (r.kind == RouteKind::appTap && r.activationMode == RouteActivationMode::on) startAudio(r.id, false);
    updateAutoPolling();
    reconcileAutoRoutes();
}

void RouteStore::restorePersistedState() {
    isRestoringState_ = true;
    RouteStatePersistence persistence(preferences_);
    std::optional<std::pair<RouteStatePersistence::State, std::string>> loaded;
    bool hasDocument = false;
    try {
        hasDocument = preferences_.data(RouteStatePersistence::key).has_value();
        loaded = persistence.load();
    } catch (const PreferencesStore::Error& e) {
        spdlog::warn("the saved routes cannot be read: {}", e.what());
    }
    if (loaded) {
        routes_.clear();
        for (const auto& r : loaded->first.routes) routes_.push_back(r.restoredForCurrentSession());
        const auto& selected = loaded->first.selectedRouteID;
        selectedRouteID_ = selected && route(*selected) ? selected : std::nullopt;
        lastWrittenBytes_ = loaded->second;
    } else if (hasDocument) {
        // Kept for the user: the first save moves it aside instead of writing over it.
        spdlog::warn("the saved routes in {} do not decode; starting with none",
                     preferences_.pathFor(RouteStatePersistence::key).string());
        setAsideBeforeSave_ = true;
    }
    isRestoringState_ = false;
    changed(Change::routes);
    changed(Change::selection);
}

// ---- persistence -------------------------------------------------------------------------------

void RouteStore::scheduleStatePersist() {
    if (isRestoringState_ || glides_.isInFlight()) return;
    // A burst of changes is written once, this long after its last change.
    saveTimer_.startOnce(saveDelaySeconds, [this] {
        // A glide that began after this was scheduled holds it too; its end schedules again.
        if (!glides_.isInFlight()) persistStateNow();
    });
}

void RouteStore::persistStateNow() {
    saveTimer_.cancel();
    const std::string bytes = RouteStatePersistence::encode({selectedRouteID_, routes_});
    if (lastWrittenBytes_ == bytes) return;
    try {
        if (setAsideBeforeSave_) {
            preferences_.setAside(RouteStatePersistence::key);
            setAsideBeforeSave_ = false;
        }
        preferences_.setData(RouteStatePersistence::key, bytes);
        lastWrittenBytes_ = bytes;
        lastSaveProblem_.reset();
    } catch (const PreferencesStore::Error& e) {
        // The previous document stays; the next change tries again.
        lastSaveProblem_ = e.what();
        spdlog::warn("the routes could not be saved: {}", e.what());
    }
}

// ---- the route list ----------------------------------------------------------------------------

UUID RouteStore::addRoute(const std::string& bundleID, const std::string& displayName,
                          std::optional<std::string> deviceUID, std::optional<std::uint32_t> streamIndex) {
    if (bundleID.empty()) throw std::invalid_argument("an application without an identity cannot be routed");
    if (std::any_of(routes_.begin(), routes_.end(), [&](const AppRoute& r) { return r.bundleID == bundleID; }))
        throw std::invalid_argument("\"" + bundleID + "\" already has a route");
    if (deviceUID && deviceUID->empty()) deviceUID.reset();
    AppRoute route(UUID::random(), bundleID, displayName.empty() ? bundleID : displayName, std::move(deviceUID),
                   streamIndex);
    routes_.push_back(route);
    editRoute(route.id);
    if (!selectedRouteID_) selectRoute(route.id);
    return route.id;
}

bool RouteStore::removeRoute(const UUID& id) {
    auto it = std::find_if(routes_.begin(), routes_.end(), [&](const AppRoute& r) { return r.id == id; });
    if (it == routes_.end()) return false;
    stopAudio(id);
    const auto index = std::size_t(it - routes_.begin());
    routes_.erase(it);
    awaitingApplication_.erase(id);
    awaitingDevice_.erase(id);
    setError(id, std::nullopt);
    aiTune_.forget(id);
    editRoute(id);
    if (selectedRouteID_ == id) {
        // The neighbour that takes its place, else the one before, else none.
        std::optional<UUID> next;
        if (!routes_.empty()) next = routes_[std::min(index, routes_.size() - 1)].id;
        selectRoute(next);
    }
    updateAutoPolling();
    return true;
}

bool RouteStore::moveRoute(const UUID& id, std::size_t index) {
    auto it = std::find_if(routes_.begin(), routes_.end(), [&](const AppRoute& r) { return r.id == id; });
    if (it == routes_.end()) return false;
    const auto from = std::size_t(it - routes_.begin());
    const auto to = std::min(index, routes_.size() - 1);
    if (from == to) return true;
    AppRoute moving = std::move(*it);
    routes_.erase(it);
    routes_.insert(routes_.begin() + std::ptrdiff_t(to), std::move(moving));
    editRoute(id);
    return true;
}

bool RouteStore::selectRoute(const std::optional<UUID>& id) {
    if (id && !route(*id)) return false;
    if (selectedRouteID_ == id) return true;
    selectedRouteID_ = id;
    changed(Change::selection);
    scheduleStatePersist();
    return true;
}

// ---- starting and stopping -----------------------------------------------------------------------

const ProcessDiscoveryService::Entry* RouteStore::processFor(const AppRoute& route) const {
    if (auto live = liveRoutes_.find(route.id); live != liveRoutes_.end())
        if (const auto* own = live->second->find(availableProcesses_)) return own;
    const ProcessDiscoveryService::Entry* found = nullptr;
    for (const auto& e : availableProcesses_) {
        if (e.bundleID != route.bundleID) continue;
        if (!found || (e.isRunningOutput && !found->isRunningOutput)) found = &e;
    }
    return found;
}

bool RouteStore::isSounding(const AppRoute& route) const {
    const auto* process = processFor(route);
    return process && process->isRunningOutput && !broadcastPausedBundles_.count(route.bundleID);
}

bool RouteStore::captureAllowed() {
    // Asked once per session, and again after a refusal (the user may have fixed it meanwhile).
    if (captureGranted_.value_or(false)) return true;
    try {
        captureGranted_ = AudioCapturePermission::request(platform_, preferences_) ==
                          AudioCapturePermission::Status::granted;
    } catch (const PreferencesStore::Error& e) {
        // The answer stands even when it cannot be remembered.
        spdlog::warn("the capture permission could not be saved: {}", e.what());
        captureGranted_ = AudioCapturePermission::lastKnown(preferences_) == AudioCapturePermission::Status::granted;
    }
    return *captureGranted_;
}

std::shared_ptr<RouteDSPChain> RouteStore::makeChain(const UUID& id, int channelCount) const {
    // The engine rebuilds it at the capture's rate when it starts.
    auto chain = std::make_shared<RouteDSPChain>(channelCount, 48000.0, options_.clock);
    if (const auto* r = route(id)) RouteChainSettings::applyTo(*r, *chain);
    return chain;
}

std::optional<RouteResponseCurve> RouteStore::responseCurve(const UUID& id, int channel,
                                                            std::span<const double> frequenciesHz) const {
    const AppRoute* r = route(id);
    if (!r) return std::nullopt;
    if (const RouteDSPChain* live = dspChain(id)) return RouteResponseCurve::of(*r, *live, channel, frequenciesHz);
    const auto offline = makeChain(id, r->effectiveOutputChannelCount);
    return RouteResponseCurve::of(*r, *offline, channel, frequenciesHz);
}

bool RouteStore::startAudio(const UUID& id, bool forceRestart) {
    AppRoute* r = mutableRoute(id);
    if (!r) return false;
    if (r->kind != RouteKind::appTap) {
        setError(id, std::string("the player deck cannot play yet"));
        return true;
    }
    auto it = liveRoutes_.find(id);
    if (it != liveRoutes_.end() && it->second->isRunning() && !forceRestart) return true;
    awaitingApplication_.erase(id);
    awaitingDevice_.erase(id);
    awaitingCapture_.erase(id);

    if (!captureAllowed()) {
        liveRoutes_.erase(id);
        markStopped(id);
        setHealth(*r, RouteHealth::blocked);
        setError(id, std::string(captureRefusedText));
        awaitingCapture_.insert(id);
        return true;
    }
    const auto* process = processFor(*r);
    const bool isHeld = it != liveRoutes_.end() && it->second->state() == LiveRoute::State::paused;
    if (!process && !isHeld) {
        liveRoutes_.erase(id);
        markStopped(id);
        awaitingApplication_.insert(id);
        setHealth(*r, RouteHealth::lost);
        setError(id, std::string(appNotRunningText));
        return true;
    }
    if (it == liveRoutes_.end()) {
        LiveRoute::Application app{r->bundleID, r->displayName, process->pid, 0, process->objectID};
        app.anchorPID = process->pid > 0 ? options_.processTree->applicationRoot(process->pid) : 0;
        LiveRoute::Placement placement{r->targetOutputDeviceID, r->targetOutputStreamIndex, true};
        auto live = std::make_unique<LiveRoute>(platform_, std::move(app), std::move(placement),
                                                [this, id](int channels) { return makeChain(id, channels); });
        live->setAnalysisTap(aiTune_.tapFor(id));
        it = liveRoutes_.emplace(id, std::move(live)).first;
    }
    glides_.cancel(id); // the new chain is built at the stored values
    try {
        if (forceRestart) it->second->restart();
        else it->second->start();
    } catch (const LiveRoute::Error& e) {
        if (it->second->state() == LiveRoute::State::stopped) liveRoutes_.erase(it);
        markStopped(id);
        applyStartFailure(*r, e);
        return true;
    }
    afterStart(*r, *it->second, true);
    return true;
}

void RouteStore::applyStartFailure(AppRoute& route, const LiveRoute::Error& error) {
    switch (error.kind()) {
    case LiveRoute::Error::Kind::noOutputDevice:
    case LiveRoute::Error::Kind::outputDeviceUnavailable:
        awaitingDevice_.insert(route.id);
        setHealth(route, RouteHealth::blocked);
        setError(route.id, std::string(noOutputDeviceText));
        break;
    case LiveRoute::Error::Kind::engine:
        if (const auto& e = error.engineError(); e && e->isCapture()) {
            // A capture refused now may mean the permission went: ask again before blaming the route.
            captureGranted_.reset();
            if (!captureAllowed()) {
                setHealth(route, RouteHealth::blocked);
                setError(route.id, std::string(captureRefusedText));
                awaitingCapture_.insert(route.id);
                break;
            }
        }
        [[fallthrough]];
    case LiveRoute::Error::Kind::chain:
        setHealth(route, RouteHealth::lost);
        setError(route.id, std::string(error.what()));
        break;
    }
}

// What a running route's engine settled on, shown on the route and kept with it.
void RouteStore::afterStart(AppRoute& route, LiveRoute& live, bool engineIsNew) {
    const auto& format = live.format();
    route.effectiveOutputChannelCount = int(format.channelCount);
    route.effectiveOutputLayoutDescription = format.layoutDescription;
    route.lastCaptureMode = format.captureMode;
    if (liveEngines_.insert(route.id).second) changed(Change::liveEngines);
    switch (live.placementProblem()) {
    case LiveRoute::PlacementProblem::none:
        route.health = RouteHealth::active;
        setError(route.id, std::nullopt);
        break;
    case LiveRoute::PlacementProblem::outputDeviceUnavailable:
        route.health = RouteHealth::attention;
        setError(route.id, std::string(outputDeviceUnavailableText));
        break;
    case LiveRoute::PlacementProblem::outputStreamUnavailable:
        route.health = RouteHealth::attention;
        setError(route.id, std::string(outputStreamUnavailableText));
        break;
    }
    if (engineIsNew) {
        aiTune_.routeStarted(route.id, live.sampleRate(), route.aiTuneScope.has_value());
        live.chain()->beatMeter().setEnabled(route.aiTuneScope.has_value());
    }
    editRoute(route.id);
    updateHealthChecks();
    updateAITicks();
}

void RouteStore::markStopped(const UUID& id) {
    glides_.cancel(id);
    aiTune_.routeStopped(id);
    if (liveEngines_.erase(id)) changed(Change::liveEngines);
    updateHealthChecks();
    updateAITicks();
}

bool RouteStore::stopAudio(const UUID& id) {
    AppRoute* r = mutableRoute(id);
    if (!r) return false;
    liveRoutes_.erase(id);
    markStopped(id);
    // What the engine reported no longer holds once it is gone.
    if (r->health == RouteHealth::active || r->health == RouteHealth::verifying ||
        r->health == RouteHealth::verified || r->health == RouteHealth::attention)
        setHealth(*r, RouteHealth::idle);
    return true;
}

void RouteStore::pauseRoute(AppRoute& route) {
    auto it = liveRoutes_.find(route.id);
    if (it != liveRoutes_.end() && !it->second->pause()) liveRoutes_.erase(it);
    markStopped(route.id);
    setHealth(route, RouteHealth::paused);
}

void RouteStore::restartLiveRoutes() {
    for (const UUID& id : std::vector<UUID>(liveEngines_.begin(), liveEngines_.end())) startAudio(id, true);
}

bool RouteStore::setActivationMode(RouteActivationMode mode, const UUID& id) {
    AppRoute* r = mutableRoute(id);
    if (!r || r->kind != RouteKind::appTap) return false;
    if (r->activationMode != mode) {
        r->activationMode = mode;
        editRoute(id);
    }
    switch (mode) {
    case RouteActivationMode::off:
        stopAudio(id);
        awaitingApplication_.erase(id);
        awaitingDevice_.erase(id);
        setError(id, std::nullopt);
        if (r->health == RouteHealth::paused || r->health == RouteHealth::blocked) setHealth(*r, RouteHealth::idle);
        break;
    case RouteActivationMode::on: startAudio(id, false); break;
    case RouteActivationMode::automatic:
        discovery_.refresh();
        availableProcesses_ = discovery_.entries();
        reconcileAutoRoutes();
        break;
    }
    updateAutoPolling();
    return true;
}

void RouteStore::setBroadcastPaused(const std::string& bundleID, bool paused) {
    const bool changedSet = paused ? broadcastPausedBundles_.insert(bundleID).second
                                   : broadcastPausedBundles_.erase(bundleID) > 0;
    // Auto routes follow at their next poll.
    if (changedSet) changed(Change::broadcastPaused);
}

} // namespace tarn
