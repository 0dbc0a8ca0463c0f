#include "app/DeskService.hpp"

#include <algorithm>

#include <spdlog/spdlog.h>

#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

DeskService::DeskService(MainQueue& queue, PlatformFactory makePlatform, ConnectionCheck isConnected,
                         PreferencesStore preferences, SongMemoryStore* songMemory)
    : queue_(queue), makePlatform_(std::move(makePlatform)), isConnected_(std::move(isConnected)),
      preferences_(std::move(preferences)), songMemory_(songMemory), checkTimer_(queue), retryTimer_(queue) {}

DeskService::~DeskService() {
    // Whoever listened may already be gone; what stopping does now is nobody's news.
    changeListeners_.clear();
    connectionListeners_.clear();
    checkTimer_.cancel();
    retryTimer_.cancel();
    store_.reset(); // saves, stops every route
    if (platform_ && lossListener_) platform_->removeListener(lossListener_);
    platform_.reset();
}

void DeskService::start() {
    connect();
    checkTimer_.startRepeating(connectionCheckSeconds, [this] { checkConnection(); });
}

void DeskService::connect() {
    try {
        platform_ = makePlatform_();
    } catch (const std::exception& e) {
        const bool isNew = connectionProblem_ != std::string(e.what());
        connectionProblem_ = e.what();
        if (isNew) spdlog::warn("the sound server cannot be reached ({}); trying again", e.what());
        retryTimer_.startOnce(retrySeconds_, [this] { connect(); });
        retrySeconds_ = std::min(retrySeconds_ * 2, maxRetrySeconds);
        return;
    }
    connectionProblem_.reset();
    retrySeconds_ = firstRetrySeconds;
    // A server that goes away reports it as a change of its devices.
    std::weak_ptr<DeskService*> weak = self_;
    platform_->addDeviceListListener(
        [weak, &queue = queue_] {
            queue.async([weak] {
                if (auto self = weak.lock()) (*self)->checkConnection();
            });
        },
        lossListener_);
    store_ = std::make_unique<RouteStore>(*platform_, queue_, preferences_,
                                          RouteStore::Options{{}, &ProcessTree::system(), songMemory_});
    store_->onChange = [this](RouteStore::Change change) {
        for (const auto& listener : changeListeners_) listener(change);
    };
    store_->start();
    store_->activateRestoredRoutes();
    // Routes the server's restart took away, started by hand or by the policy, come back too.
    for (const UUID& id : liveBeforeLoss_)
        if (store_->route(id) && !store_->liveEngines().count(id)) store_->startAudio(id, false);
    liveBeforeLoss_.clear();
    spdlog::info("connected to the sound server; {} route(s), {} live", store_->routes().size(),
                 store_->liveEngines().size());
    for (const auto& listener : connectionListeners_) listener();
}

void DeskService::checkConnection() {
    if (platform_ && store_ && !isConnected_(*platform_)) lose();
}

void DeskService::lose() {
    spdlog::warn("the sound server went away; the routes come back when it does");
    liveBeforeLoss_ = store_->liveEngines();
    store_.reset();
    if (lossListener_) platform_->removeListener(lossListener_);
    lossListener_ = 0;
    platform_.reset();
    for (const auto& listener : connectionListeners_) listener();
    retrySeconds_ = firstRetrySeconds;
    retryTimer_.startOnce(retrySeconds_, [this] { connect(); });
}

nlohmann::json DeskService::meters() const {
    auto out = nlohmann::json::array();
    if (!store_) return out;
    for (const UUID& id : store_->liveEngines())
        if (RouteDSPChain* chain = store_->dspChain(id))
            out.push_back({{"id", id.string()},
                           {"inputPeak", chain->inputMeter().currentPeak()},
                           {"outputPeak", chain->outputMeter().currentPeak()},
                           {"nonFiniteInputSamples", chain->nonFiniteInputSampleCount()}});
    return out;
}

} // namespace tarn
