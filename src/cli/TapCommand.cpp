#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <spdlog/spdlog.h>

#include "cli/Applications.hpp"
#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "cli/StopSignals.hpp"
#include "core/audio/AudioOutputDeviceService.hpp"
#include "core/audio/ControlLoop.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/OutputDeviceLookup.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"

namespace tarn::cli {
namespace {

using Clock = ControlLoop::Clock;
using Entry = ProcessDiscoveryService::Entry;

// When the default device goes away, the session manager names the next one a moment later.
constexpr double newDefaultGraceSeconds = 2.0;
constexpr int exitInterrupted = 130;

struct TapOptions {
    std::vector<std::string> apps;
    std::string deviceUID;
    double seconds = 0.0;
    bool json = false;
    bool verbose = false;
    ChainOptions chain;
};

std::string decibels(double linear) {
    if (!(linear > 1e-6)) return "  -inf";
    return fmt::format("{:6.1f}", 20.0 * std::log10(linear));
}

struct Route {
    Entry target;
    std::shared_ptr<RouteDSPChain> chain;
    std::unique_ptr<RouteAudioEngine> engine;
    bool isRunning = false;
};

// The I/O buffer size a route asks for, by what kind of application it carries.
uint32_t requestedFrames(const Route& route) {
    return IOBufferPolicy::preferredFrames(route.target.bundleID, route.target.displayName);
}

// One `tarn tap` run. Everything here happens on the control loop's thread; the platform's
// listeners and the signal watcher only post to the loop, which sleeps until there is work, a
// meter line is due, or it is time to look at the engines.
class TapSession {
public:
    TapSession(TapOptions& options, ControlLoop& loop) : options_(options), loop_(loop) {}

    int run();

private:
    bool followsDefault() const { return options_.deviceUID.empty(); }
    void connect();
    void resolveFormat();
    Entry resolveTarget(const std::string& app);
    std::unique_ptr<RouteAudioEngine> makeEngine(const Route& route, const RouteAudioFormat& format,
                                                 const std::shared_ptr<RouteDSPChain>& chain) const;
    std::shared_ptr<RouteDSPChain> makeChain(const RouteAudioFormat& format) const;
    uint32_t grantedQuantum(uint32_t deviceID);
    void announce(const Route& route, const char* event, double rate, uint32_t quantum);

    void onProcessesChanged();
    void onDevicesChanged();
    void followDefaultTo(const OutputDeviceInfo& device);
    void checkInterruptions();
    void printMeters();
    void tick();
    bool currentDeviceIsPresent();
    void fail(std::string message);
    void stopAll();

    TapOptions& options_;
    ControlLoop& loop_;
    // Declared in this order so that the engines go first, then the services, then the platform
    // they all use.
    std::unique_ptr<PipeWirePlatform> platform_;
    std::unique_ptr<ProcessDiscoveryService> discovery_;
    std::unique_ptr<AudioOutputDeviceService> devices_;
    RouteAudioFormat format_;
    std::string deviceName_;
    std::vector<Route> routes_;
    Clock::time_point started_;
    Clock::time_point nextMeter_;
    // The default device went away: waiting (how many times so far) for the session manager to
    // name the next one.
    bool awaitingDefault_ = false;
    uint64_t defaultWait_ = 0;
    std::string failure_;
};

void TapSession::connect() {
    try {
        platform_ = std::make_unique<PipeWirePlatform>();
    } catch (const PipeWireError& e) {
        throw CommandError(exitFailure, e.what());
    }
    discovery_ = std::make_unique<ProcessDiscoveryService>(*platform_, loop_);
    devices_ = std::make_unique<AudioOutputDeviceService>(*platform_, loop_);
}

void TapSession::resolveFormat() {
    OutputDeviceLookup lookup(*platform_);
    std::optional<std::string> uid;
    if (!followsDefault()) uid = options_.deviceUID;
    auto format = lookup.resolveRouteFormat(uid, std::nullopt, false);
    if (!format) {
        throw CommandError(exitFailure, followsDefault()
                                            ? std::string("there is no default output device (see `tarn devices`)")
                                            : fmt::format("no output device \"{}\" (see `tarn devices`)", options_.deviceUID));
    }
    options_.chain.checkChannelCount(static_cast<int>(format->channelCount));
    format_ = *format;
    deviceName_ = lookup.name(format_.outputDeviceID).value_or(format_.outputDeviceUID);
}

// APP must name exactly one application, the way `tarn apps` lists them.
Entry TapSession::resolveTarget(const std::string& app) {
    std::vector<Entry> matches;
    // An application that has just started may still be announcing itself: look again briefly.
    for (int attempt = 0; attempt < 10 && matches.empty() && !loop_.isQuitting(); ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            try {
                platform_->connection().sync();
            } catch (const PipeWireError& e) {
                throw CommandError(exitFailure, e.what());
            }
        }
        discovery_->refresh();
        matches = Applications::matching(discovery_->entries(), app);
    }
    if (matches.empty() && loop_.isQuitting()) throw CommandError(exitInterrupted, "interrupted");
    if (matches.empty())
        throw CommandError(exitFailure, fmt::format("no application playing audio matches \"{}\" (see `tarn apps`)", app));
    if (matches.size() > 1) {
        std::string pids;
        for (const auto& m : matches) pids += (pids.empty() ? "" : ", ") + std::to_string(m.pid);
        throw CommandError(exitFailure, fmt::format("\"{}\" matches {} applications (pids {}); name one by its pid",
                                                    app, matches.size(), pids));
    }
    return matches.front();
}

std::shared_ptr<RouteDSPChain> TapSession::makeChain(const RouteAudioFormat& format) const {
    // The engine rebuilds the chain at the capture's rate when it starts.
    auto chain = std::make_shared<RouteDSPChain>(static_cast<int>(format.channelCount), 48000.0);
    options_.chain.applyTo(*chain);
    return chain;
}

std::unique_ptr<RouteAudioEngine> TapSession::makeEngine(const Route& route, const RouteAudioFormat& format,
                                                         const std::shared_ptr<RouteDSPChain>& chain) const {
    return std::make_unique<RouteAudioEngine>(*platform_, route.target.bundleID, route.target.objectID, format, chain,
                                              16384, requestedFrames(route));
}

uint32_t TapSession::grantedQuantum(uint32_t deviceID) {
    // The quantum is known once the graph has run the new streams for a cycle or two.
    uint32_t quantum = 0;
    for (int i = 0; i < 50 && platform_->bufferFrameSize(deviceID, quantum) != AudioPlatform::noError; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return quantum;
}

void TapSession::announce(const Route& route, const char* event, double rate, uint32_t quantum) {
    const auto& t = route.target;
    const auto frames = requestedFrames(route);
    const bool isMove = std::string_view(event) == "deviceChanged";
    if (options_.json) {
        nlohmann::json line{{"event", event},
                            {"app", t.displayName},
                            {"identity", t.bundleID},
                            {"pid", t.pid},
                            {"device", format_.outputDeviceUID},
                            {"sampleRate", rate},
                            {"channelCount", format_.channelCount},
                            {"layout", format_.layoutDescription},
                            {"requestedFrames", frames},
                            {"quantumFrames", quantum}};
        if (isMove) line["deviceName"] = deviceName_;
        fmt::print("{}\n", line.dump());
    } else if (isMove) {
        fmt::print("The default output is now {}: {} (pid {}) follows it at {} Hz, {} ({} ch); quantum {}.\n",
                   deviceName_, t.displayName, t.pid, rate, format_.layoutDescription, format_.channelCount,
                   quantum ? std::to_string(quantum) : std::string("unknown"));
    } else {
        fmt::print("Routing {} ({}, pid {}) to {} at {} Hz, {} ({} ch); asked {} frames, quantum {}.\n", t.displayName,
                   t.bundleID, t.pid, deviceName_, rate, format_.layoutDescription, format_.channelCount, frames,
                   quantum ? std::to_string(quantum) : std::string("unknown"));
    }
    std::fflush(stdout);
}

void TapSession::fail(std::string message) {
    if (failure_.empty()) failure_ = std::move(message);
    loop_.quit();
}

void TapSession::stopAll() {
    for (auto& r : routes_)
        if (r.isRunning) {
            r.engine->stop();
            r.isRunning = false;
        }
}

bool TapSession::currentDeviceIsPresent() {
    AudioPlatform::ObjectID id = 0;
    return platform_->deviceForUID(format_.outputDeviceUID, id) == AudioPlatform::noError &&
           id == format_.outputDeviceID;
}

// An application that quit ends its route; the command ends with the last one.
void TapSession::onProcessesChanged() {
    const auto& present = discovery_->entries();
    for (auto& r : routes_) {
        if (!r.isRunning) continue;
        bool alive = std::any_of(present.begin(), present.end(), [&](const Entry& e) {
            return r.target.pid != 0 ? e.pid == r.target.pid : e.bundleID == r.target.bundleID;
        });
        if (alive) continue;
        r.engine->stop();
        r.isRunning = false;
        if (options_.json)
            fmt::print("{}\n", nlohmann::json{{"event", "appQuit"}, {"app", r.target.displayName}, {"pid", r.target.pid}}
                                   .dump());
        else
            fmt::print("{} (pid {}) quit; its route ended.\n", r.target.displayName, r.target.pid);
        std::fflush(stdout);
    }
    if (std::none_of(routes_.begin(), routes_.end(), [](const Route& r) { return r.isRunning; })) loop_.quit();
}

void TapSession::onDevicesChanged() {
    if (!followsDefault()) {
        if (!currentDeviceIsPresent())
            fail(fmt::format("the output device \"{}\" ({}) went away; the route ended", deviceName_,
                             format_.outputDeviceUID));
        return;
    }
    if (const auto* device = devices_->defaultDevice()) {
        awaitingDefault_ = false;
        if (device->uid != format_.outputDeviceUID || device->deviceID != format_.outputDeviceID)
            followDefaultTo(*device);
        return;
    }
    // No default for now. While the device in use is still there, it simply stays in use.
    if (currentDeviceIsPresent() || awaitingDefault_) return;
    awaitingDefault_ = true;
    loop_.asyncAfter(newDefaultGraceSeconds, [this, wait = ++defaultWait_] {
        if (!awaitingDefault_ || wait != defaultWait_) return; // a default came, or a newer wait runs
        awaitingDefault_ = false;
        if (devices_->defaultDevice() || currentDeviceIsPresent()) return;
        fail(fmt::format("the output device \"{}\" ({}) went away and there is no default output device to follow; "
                         "the route ended",
                         deviceName_, format_.outputDeviceUID));
    });
}

// Each route gets a new engine on the new device before its old one stops: the application's
// streams move straight from the old capture to the new one and are never heard unprocessed.
// The new engine has a chain of its own (same settings), because both engines' capture
// callbacks run until the old one has stopped.
void TapSession::followDefaultTo(const OutputDeviceInfo& device) {
    OutputDeviceLookup lookup(*platform_);
    auto format = lookup.resolveRouteFormat(device.uid, std::nullopt, false);
    if (!format) {
        fail(fmt::format("the default output device \"{}\" ({}) cannot be used; the route ended", device.name,
                         device.uid));
        return;
    }
    try {
        options_.chain.checkChannelCount(static_cast<int>(format->channelCount));
    } catch (const CommandError& e) {
        fail(fmt::format("cannot follow the default output to \"{}\": {}", device.name, e.what()));
        return;
    }
    format_ = *format;
    deviceName_ = device.name;
    for (auto& r : routes_) {
        if (!r.isRunning) continue;
        auto chain = makeChain(format_);
        auto engine = makeEngine(r, format_, chain);
        double rate = 0;
        try {
            rate = engine->start();
        } catch (const RouteAudioEngine::StartError& e) {
            fail(fmt::format("cannot move {} (pid {}) to \"{}\": {}", r.target.displayName, r.target.pid, device.name,
                             e.description()));
            return;
        }
        r.engine->stop();
        r.engine = std::move(engine);
        r.chain = std::move(chain);
        announce(r, "deviceChanged", rate, grantedQuantum(format_.outputDeviceID));
    }
}

// A stream the sound server stopped ends the route, unless it stopped because its device went
// away while the route follows the default: then the device change moves the route.
void TapSession::checkInterruptions() {
    for (auto& r : routes_) {
        if (!r.isRunning || !r.engine->interruption()) continue;
        try {
            platform_->connection().sync(); // a device removal that caused it is known after this
        } catch (const PipeWireError&) {
        }
        devices_->refresh(); // may move the route to a new default
        if (loop_.isQuitting()) return;
        auto interruption = r.engine->interruption();
        if (!interruption) continue;
        if (currentDeviceIsPresent()) {
            fail(fmt::format("the route stopped: {}", *interruption));
            return;
        }
        if (!followsDefault()) {
            fail(fmt::format("the output device \"{}\" ({}) went away; the route ended", deviceName_,
                             format_.outputDeviceUID));
            return;
        }
        // Following the default: the wait for the next default decides.
    }
}

// Once a second: the meters, and whether an engine stopped. Engines report a stream the server
// stopped only when asked; the usual causes (a device or the application going away) wake the loop
// through the listeners at once, so the rare rest waits for this tick rather than costing the
// routes a wake-up of their own several times a second.
void TapSession::tick() {
    checkInterruptions();
    if (loop_.isQuitting()) return;
    printMeters();
    nextMeter_ += std::chrono::seconds(1);
    loop_.asyncAt(nextMeter_, [this] { tick(); });
}

void TapSession::printMeters() {
    double elapsed = std::chrono::duration<double>(Clock::now() - started_).count();
    if (options_.json) {
        auto list = nlohmann::json::array();
        for (auto& r : routes_)
            if (r.isRunning)
                list.push_back({{"app", r.target.displayName},
                                {"pid", r.target.pid},
                                {"inputPeak", r.chain->inputMeter().currentPeak()},
                                {"outputPeak", r.chain->outputMeter().currentPeak()}});
        fmt::print("{}\n", nlohmann::json{{"event", "meters"}, {"seconds", std::round(elapsed)}, {"routes", list}}.dump());
    } else {
        for (auto& r : routes_)
            if (r.isRunning)
                fmt::print("{:4.0f}s  {:<16}  in {} dBFS  out {} dBFS\n", elapsed, r.target.displayName,
                           decibels(r.chain->inputMeter().currentPeak()), decibels(r.chain->outputMeter().currentPeak()));
    }
    std::fflush(stdout);
}

int TapSession::run() {
    connect();
    resolveFormat();
    for (const auto& app : options_.apps) {
        Route route;
        route.target = resolveTarget(app);
        for (const auto& r : routes_)
            if (r.target.objectID == route.target.objectID)
                throw CommandError(exitUsage, fmt::format("\"{}\" is named twice", app));
        routes_.push_back(std::move(route));
    }

    for (auto& route : routes_) {
        route.chain = makeChain(format_);
        route.engine = makeEngine(route, format_, route.chain);
        double rate = 0;
        try {
            rate = route.engine->start();
        } catch (const RouteAudioEngine::StartError& e) {
            stopAll();
            throw CommandError(exitFailure, fmt::format("cannot route {} (pid {}): {}", route.target.displayName,
                                                        route.target.pid, e.description()));
        }
        route.isRunning = true;
        announce(route, "started", rate, grantedQuantum(format_.outputDeviceID));
    }
    if (!options_.json) fmt::print("Ctrl-C stops and returns the application to its normal output.\n");
    std::fflush(stdout);

    // From here on the loop drives everything.
    discovery_->onChange = [this] { onProcessesChanged(); };
    devices_->onChange = [this] { onDevicesChanged(); };
    discovery_->start();
    devices_->start();
    started_ = Clock::now();
    nextMeter_ = started_ + std::chrono::seconds(1);
    loop_.asyncAt(nextMeter_, [this] { tick(); });
    if (options_.seconds > 0) loop_.asyncAfter(options_.seconds, [this] { loop_.quit(); });
    loop_.run();

    stopAll();
    auto xruns = platform_->xrunCount();
    routes_.clear();
    discovery_.reset();
    devices_.reset();
    platform_.reset(); // removes the capture sinks and the metadata; the applications go back
    if (!failure_.empty()) throw CommandError(exitFailure, failure_);
    if (options_.json)
        fmt::print("{}\n", nlohmann::json{{"event", "stopped"}, {"xruns", xruns}}.dump());
    else
        fmt::print("Stopped ({} xruns); the application is back on its normal output.\n", xruns);
    return exitOk;
}

int runTap(TapOptions& options) {
    // The engines log buffer-size negotiation at info level; the meters are this command's output.
    if (!options.verbose) spdlog::set_level(spdlog::level::warn);
    options.chain.loadFiles();
    ControlLoop loop;
    // Before the platform starts its threads, so that they inherit the blocked signals.
    StopSignals signals([&loop](int) { loop.quit(); });
    TapSession session(options, loop);
    return session.run();
}

Command makeTapCommand(CLI::App& root) {
    auto options = std::make_shared<TapOptions>();
    auto* app = root.add_subcommand(
        "tap", "Route applications live through a chain to an output device, printing meters once a second");
    app->add_option("APP", options->apps, "Application to route: its pid, identity or name (see `tarn apps`)")
        ->required();
    app->add_option("--device", options->deviceUID,
                    "Output device UID (see `tarn devices`); default: the default output, followed when it changes")
        ->type_name("UID");
    app->add_option("--seconds", options->seconds, "Stop after this many seconds (default: until Ctrl-C)")
        ->type_name("N")
        ->check(CLI::Validator(
            [](std::string& text) {
                try {
                    size_t used = 0;
                    double value = std::stod(text, &used);
                    if (used == text.size() && value > 0 && std::isfinite(value)) return std::string();
                } catch (...) {
                }
                return "\"" + text + "\" is not a positive number of seconds";
            },
            "", ""));
    app->add_flag("--json", options->json, "Print one JSON object per event and per second");
    app->add_flag("--verbose", options->verbose, "Also log what the audio engines negotiate (buffer sizes)");
    options->chain.addTo(*app);
    return {app, [options] { return runTap(*options); }};
}

const CommandRegistration registration{"tap", 60, &makeTapCommand};

} // namespace
} // namespace tarn::cli
