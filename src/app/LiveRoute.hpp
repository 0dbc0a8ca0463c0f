#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"
#include "core/audio/ProcessStreamHold.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/audio/RouteAudioFormat.hpp"

namespace tarn {

class AnalysisTap;
class ProcessTree;
class RouteDSPChain;

// One route's live audio from start to stop, the same for the desk's store and for `tarn tap`:
// the engine on the chosen output device (or on the default output, followed as it changes), the
// route's chain, and the hold on the application's streams while the route is paused.
//
// A route follows its application, not one stream. The application's streams, including the ones
// it opens later (a browser reopens its stream after a pause, a player when the next file has
// another rate), are taken onto the route's capture for as long as the route runs or is paused;
// only the application's exit ends it.
//
// Control thread only.
class LiveRoute {
public:
    // Builds a chain with the route's settings for a device of this many channels. May throw
    // std::exception: the start or move that needed it fails with its message.
    using ChainFactory = std::function<std::shared_ptr<RouteDSPChain>(int channelCount)>;

    struct Application {
        std::string bundleID;
        std::string displayName;
        std::int32_t pid = 0;                // of the process that plays; 0 when unknown
        std::int32_t anchorPID = 0;          // whose exit ends the route (the main process)
        std::uint32_t processObjectID = 0;   // its newest process object
    };

    struct Placement {
        std::optional<std::string> deviceUID; // none: the default output, followed as it changes
        std::optional<std::uint32_t> streamIndex;
        // A chosen device or stream that is missing: play on the default output meanwhile (the
        // desk), or end the route (a command line that named the device).
        bool fallsBackToDefault = true;
        bool operator==(const Placement&) const = default;
    };

    // Why the route is not where it was asked to play.
    enum class PlacementProblem { none, outputDeviceUnavailable, outputStreamUnavailable };

    class Error : public std::exception {
    public:
        enum class Kind { noOutputDevice, outputDeviceUnavailable, chain, engine };
        Error(Kind kind, std::string message, std::optional<RouteAudioEngine::StartError> engineError = std::nullopt)
            : kind_(kind), message_(std::move(message)), engineError_(std::move(engineError)) {}
        Kind kind() const { return kind_; }
        const char* what() const noexcept override { return message_.c_str(); }
        const std::optional<RouteAudioEngine::StartError>& engineError() const { return engineError_; }

    private:
        Kind kind_;
        std::string message_;
        std::optional<RouteAudioEngine::StartError> engineError_;
    };

    enum class State { stopped, running, paused };

    // What the application is doing, as discovery and the process table tell.
    enum class Presence { playing, silent, withoutStreams, quit };

    // The result of following the devices.
    struct Move {
        bool moved = false;
        std::optional<std::string> failure; // the route could not stay anywhere; it is stopped
    };

    static constexpr std::int64_t ringFrames = 16384;

    LiveRoute(AudioPlatform& platform, Application application, Placement placement, ChainFactory makeChain);
    ~LiveRoute();
    LiveRoute(const LiveRoute&) = delete;
    LiveRoute& operator=(const LiveRoute&) = delete;

    // Resolves the device, builds the chain and the engine and starts it; returns the sample
    // rate. Throws Error; on failure nothing of the route runs, and a hold that stood before
    // still stands.
    double start();
    // Everything released: the application is back on its normal output.
    void stop();
    // Processing stops but the application's streams stay held, heard nowhere. Returns false
    // when the hold could not be made: the route is then stopped.
    bool pause();
    // Starts again while the hold still stands, then lets it go. Throws as start().
    double resume() { return start(); }

    State state() const { return state_; }
    bool isRunning() const { return state_ == State::running; }

    // After the device list changed: moves the route when the device it should play on is not
    // the one it plays on (the new engine starts before the old one stops, so the application
    // is never heard unprocessed).
    Move followDevices();
    // Why the running engine stopped by itself, when the device it plays on is still there.
    std::optional<std::string> interruption();
    bool isDevicePresent() const;
    // A new engine on the same placement (after the server interrupted the old one).
    double restart();

    // Takes effect now when the route runs (it moves), else at the next start.
    Move setPlacement(Placement placement);
    // Where the application is now. A newer process object of it is remembered for later
    // engines (a hold or a move needs one the server knows).
    Presence follow(const std::vector<ProcessDiscoveryService::Entry>& entries, const ProcessTree& tree);
    // The entry of this application among `entries`, or none.
    const ProcessDiscoveryService::Entry* find(const std::vector<ProcessDiscoveryService::Entry>& entries) const;

    // Given to every engine this route builds from now on.
    void setAnalysisTap(std::shared_ptr<AnalysisTap> tap) { analysisTap_ = std::move(tap); }

    const Application& application() const { return application_; }
    const Placement& placement() const { return placement_; }
    PlacementProblem placementProblem() const { return placementProblem_; }
    // Valid once started; kept after stop.
    const RouteAudioFormat& format() const { return format_; }
    const std::string& deviceName() const { return deviceName_; }
    double sampleRate() const { return sampleRate_; }
    std::uint32_t requestedFrames() const;
    // The chain of the running (or last) engine; none before the first start.
    const std::shared_ptr<RouteDSPChain>& chain() const { return chain_; }
    RouteAudioEngine* engine() { return engine_.get(); }

private:
    struct Target {
        RouteAudioFormat format;
        PlacementProblem problem = PlacementProblem::none;
    };
    // Where the route should play now; throws Error when nowhere.
    Target resolveTarget();
    // Builds and starts an engine for `target`; the running one (if any) is left alone.
    std::pair<std::unique_ptr<RouteAudioEngine>, std::shared_ptr<RouteDSPChain>> launch(const Target& target,
                                                                                          double& sampleRate);
    void adopt(const Target& target, std::unique_ptr<RouteAudioEngine> engine, std::shared_ptr<RouteDSPChain> chain,
               double sampleRate);

    AudioPlatform& platform_;
    Application application_;
    Placement placement_;
    ChainFactory makeChain_;
    std::shared_ptr<AnalysisTap> analysisTap_;
    State state_ = State::stopped;
    PlacementProblem placementProblem_ = PlacementProblem::none;
    RouteAudioFormat format_;
    std::string deviceName_;
    double sampleRate_ = 0.0;
    std::shared_ptr<RouteDSPChain> chain_;
    std::unique_ptr<RouteAudioEngine> engine_;
    std::unique_ptr<ProcessStreamHold> hold_;
};

} // namespace tarn
