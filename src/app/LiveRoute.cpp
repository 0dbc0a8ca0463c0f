#include "app/LiveRoute.hpp"

#include <algorithm>

#include "app/ProcessTree.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/OutputDeviceLookup.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

namespace {

bool samePlace(const RouteAudioFormat& a, const RouteAudioFormat& b) {
    return a.outputDeviceID == b.outputDeviceID && a.outputDeviceUID == b.outputDeviceUID &&
           a.streamIndex == b.streamIndex && a.channelCount == b.channelCount && a.captureMode == b.captureMode;
}

} // namespace

LiveRoute::LiveRoute(AudioPlatform& platform, Application application, Placement placement, ChainFactory makeChain)
    : platform_(platform), application_(std::move(application)), placement_(std::move(placement)),
      makeChain_(std::move(makeChain)) {}

LiveRoute::~LiveRoute() { stop(); }

std::uint32_t LiveRoute::requestedFrames() const {
    return IOBufferPolicy::preferredFrames(application_.bundleID, application_.displayName);
}

LiveRoute::Target LiveRoute::resolveTarget() {
    OutputDeviceLookup lookup(platform_);
    Target target;
    const auto& uid = placement_.deviceUID;
    if (uid && !uid->empty()) {
        if (auto format = lookup.resolveRouteFormat(uid, placement_.streamIndex, false)) {
            target.format = *format;
            return target;
        }
        if (!placement_.fallsBackToDefault)
            throw Error(Error::Kind::outputDeviceUnavailable, "output device unavailable");
        // The device is there but the saved stream is not: its own layout meanwhile.
        if (placement_.streamIndex && lookup.resolve(uid)) {
            if (auto format = lookup.resolveRouteFormat(uid, std::nullopt, false)) {
                target.format = *format;
                target.problem = PlacementProblem::outputStreamUnavailable;
                return target;
            }
        }
        target.problem = PlacementProblem::outputDeviceUnavailable;
    }
    auto format = lookup.resolveRouteFormat(std::nullopt, std::nullopt, false);
    if (!format) throw Error(Error::Kind::noOutputDevice, "no output device");
    target.format = *format;
    return target;
}

std::pair<std::unique_ptr<RouteAudioEngine>, std::shared_ptr<RouteDSPChain>>
LiveRoute::launch(const Target& target, double& sampleRate) {
    auto attempt = [&](const RouteAudioFormat& format) {
        std::shared_ptr<RouteDSPChain> chain;
        try {
            chain = makeChain_(static_cast<int>(format.channelCount));
        } catch (const std::exception& e) {
            throw Error(Error::Kind::chain, e.what());
        }
        auto engine = std::make_unique<RouteAudioEngine>(platform_, application_.bundleID,
                                                         application_.processObjectID, format, chain, ringFrames,
                                                         requestedFrames());
        engine->setAnalysisTap(analysisTap_);
        sampleRate = engine->start();
        return std::make_pair(std::move(engine), std::move(chain));
    };
    try {
        return attempt(target.format);
    } catch (const RouteAudioEngine::StartError& first) {
        // A layout the capture cannot take is worth one try in plain stereo before giving up.
        if (first.isCapture() && target.format.captureMode == RouteCaptureMode::multichannelStream &&
            target.format.channelCount != 2) {
            try {
                return attempt(RouteAudioFormat::stereoFallback(target.format));
            } catch (const RouteAudioEngine::StartError&) {
            }
        }
        throw Error(Error::Kind::engine, first.description(), first);
    }
}

void LiveRoute::adopt(const Target& target, std::unique_ptr<RouteAudioEngine> engine,
                      std::shared_ptr<RouteDSPChain> chain, double sampleRate) {
    // The old engine stops only now: the application's streams went straight to the new capture.
    if (engine_) engine_->stop();
    format_ = engine->routeFormat();
    engine_ = std::move(engine);
    chain_ = std::move(chain);
    sampleRate_ = sampleRate;
    placementProblem_ = target.problem;
    OutputDeviceLookup lookup(platform_);
    deviceName_ = lookup.name(format_.outputDeviceID).value_or(format_.outputDeviceUID);
    state_ = State::running;
}

double LiveRoute::start() {
    if (state_ == State::running) return sampleRate_;
    const Target target = resolveTarget();
    double rate = 0.0;
    auto [engine, chain] = launch(target, rate);
    adopt(target, std::move(engine), std::move(chain), rate);
    // Released after the engine took the streams over, so none of them played unprocessed.
    hold_.reset();
    return rate;
}

void LiveRoute::stop() {
    if (engine_) engine_->stop();
    engine_.reset();
    hold_.reset();
    state_ = State::stopped;
}

bool LiveRoute::pause() {
    if (state_ == State::paused) return true;
    auto hold = std::make_unique<ProcessStreamHold>(platform_, application_.processObjectID, application_.bundleID);
    if (hold->hold() != AudioPlatform::noError) {
        stop();
        return false;
    }
    if (engine_) engine_->stop();
    engine_.reset();
    hold_ = std::move(hold);
    state_ = State::paused;
    return true;
}

bool LiveRoute::isDevicePresent() const {
    if (format_.outputDeviceUID.empty()) return false;
    AudioPlatform::ObjectID id = 0;
    return platform_.deviceForUID(format_.outputDeviceUID, id) == AudioPlatform::noError &&
           id == format_.outputDeviceID;
}

LiveRoute::Move LiveRoute::followDevices() {
    if (state_ != State::running) return {};
    Target target;
    try {
        target = resolveTarget();
    } catch (const Error& e) {
        // Nowhere better to go: a device that is still there stays in use.
        if (isDevicePresent()) return {};
        return {false, e.what()};
    }
    if (samePlace(target.format, format_)) {
        placementProblem_ = target.problem;
        return {};
    }
    try {
        double rate = 0.0;
        auto [engine, chain] = launch(target, rate);
        adopt(target, std::move(engine), std::move(chain), rate);
    } catch (const Error& e) {
        return {false, e.what()};
    }
    return {true, std::nullopt};
}

std::optional<std::string> LiveRoute::interruption() {
    if (state_ != State::running || !engine_) return std::nullopt;
    auto reason = engine_->interruption();
    if (!reason || !isDevicePresent()) return std::nullopt;
    return reason;
}

double LiveRoute::restart() {
    if (state_ != State::running) return start();
    const Target target = resolveTarget();
    double rate = 0.0;
    auto [engine, chain] = launch(target, rate);
    adopt(target, std::move(engine), std::move(chain), rate);
    return rate;
}

LiveRoute::Move LiveRoute::setPlacement(Placement placement) {
    if (placement == placement_) return {};
    placement_ = std::move(placement);
    return followDevices();
}

const ProcessDiscoveryService::Entry* LiveRoute::find(const std::vector<ProcessDiscoveryService::Entry>& entries) const {
    const ProcessDiscoveryService::Entry* found = nullptr;
    for (const auto& e : entries) {
        const bool mine = application_.pid > 0 ? e.pid == application_.pid : e.bundleID == application_.bundleID;
        if (!mine) continue;
        if (!found || (e.isRunningOutput && !found->isRunningOutput)) found = &e;
    }
    return found;
}

LiveRoute::Presence LiveRoute::follow(const std::vector<ProcessDiscoveryService::Entry>& entries,
                                      const ProcessTree& tree) {
    if (const auto* entry = find(entries)) {
        application_.processObjectID = entry->objectID;
        return entry->isRunningOutput ? Presence::playing : Presence::silent;
    }
    const std::int32_t anchor = application_.anchorPID > 0 ? application_.anchorPID : application_.pid;
    return anchor > 0 && tree.isAlive(anchor) ? Presence::withoutStreams : Presence::quit;
}

} // namespace tarn
