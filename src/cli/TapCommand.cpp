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

#include "app/LiveRoute.hpp"
#include "app/ProcessTree.hpp"
#include "cli/Applications.hpp"
#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "cli/NumberOption.hpp"
#include "cli/StopSignals.hpp"
#include "core/audio/AudioOutputDeviceService.hpp"
#include "core/audio/ControlLoop.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"
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

// One `tarn tap` run. Everything here happens on the control loop's thread; the platform's
// listeners and the signal watcher only post to the loop, which sleeps until there is work, a
// meter line is due, or it is time to look at the engines. Each application gets a route of its
// own (its own chain with the same settings) on the shared lifecycle the desk uses.
class TapSession {
public:
    TapSession(TapOptions& options, ControlLoop& loop) : options_(options), loop_(loop) {}

    int run();

private:
    bool followsDefault() const { return options_.deviceUID.empty(); }
    void connect();
    Entry resolveTarget(const std::string& app);
    std::unique_ptr<LiveRoute> makeRoute(const Entry& target, const std::string& app);
    uint32_t grantedQuantum(uint32_t deviceID);
    void announce(LiveRoute& route, const char* event, double rate);
    std::string deviceFailure(const LiveRoute& route, bool noDefault) const;

    void onProcessesChanged();
    void onDevicesChanged();
    void checkInterruptions();
    void printMeters();
    void tick();
    void fail(std::string message);

    TapOptions& options_;
    ControlLoop& loop_;
    // Declared in this order so that the routes go first, then the services, then the platform
    // they all use.
    std::unique_ptr<PipeWirePlatform> platform_;
    std::unique_ptr<ProcessDiscoveryService> discovery_;
    std::unique_ptr<AudioOutputDeviceService> devices_;
    std::vector<std::unique_ptr<LiveRoute>> routes_;
    Clock::time_point started_;
    Clock::time_point nextMeter_;
    // The device went away with no default to follow: waiting (how many times so far) for the
    // session manager to name the next one.
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

std::unique_ptr<LiveRoute> TapSession::makeRoute(const Entry& target, const std::string& app) {
    LiveRoute::Application application{target.bundleID, target.displayName, target.pid, target.pid, target.objectID};
    // Named by the pid of its main process: that process's exit ends the route, not a helper's.
    if (ChainOptions::parseInteger(app).value_or(0) > 0) application.anchorPID = *ChainOptions::parseInteger(app);
    else if (target.pid > 0) application.anchorPID = ProcessTree::system().applicationRoot(target.pid);
    LiveRoute::Placement placement;
    if (!followsDefault()) placement.deviceUID = options_.deviceUID;
    placement.fallsBackToDefault = false;
    auto makeChain = [this](int channelCount) {
        options_.chain.checkChannelCount(channelCount);
        // The engine rebuilds the chain at the capture's rate when it starts.
        auto chain = std::make_shared<RouteDSPChain>(channelCount, 48000.0);
        options_.chain.applyTo(*chain);
        return chain;
    };
    return std::make_unique<LiveRoute>(*platform_, std::move(application), std::move(placement), makeChain);
}

uint32_t TapSession::grantedQuantum(uint32_t deviceID) {
    // The quantum is known once the graph has run the new streams for a cycle or two.
    uint32_t quantum = 0;
    for (int i = 0; i < 50 && platform_->bufferFrameSize(deviceID, quantum) != AudioPlatform::noError; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return quantum;
}

void TapSession::announce(LiveRoute& route, const char* event, double rate) {
    const auto& t = route.application();
    const auto& format = route.format();
    const auto frames = route.requestedFrames();
    const auto quantum = grantedQuantum(format.outputDeviceID);
    const bool isMove = std::string_view(event) == "deviceChanged";
    if (options_.json) {
        nlohmann::json line{{"event", event},
                            {"app", t.displayName},
                            {"identity", t.bundleID},
                            {"pid", t.pid},
                            {"device", format.outputDeviceUID},
                            {"sampleRate", rate},
                            {"channelCount", format.channelCount},
                            {"layout", format.layoutDescription},
                            {"requestedFrames", frames},
                            {"quantumFrames", quantum},
                            {"leftOutSectionCount", route.chain()->leftOutSectionCount()}};
        if (isMove) line["deviceName"] = route.deviceName();
        fmt::print("{}\n", line.dump());
    } else if (isMove) {
        fmt::print("The default output is now {}: {} (pid {}) follows it at {} Hz, {} ({} ch); quantum {}.\n",
                   route.deviceName(), t.displayName, t.pid, rate, format.layoutDescription, format.channelCount,
                   quantum ? std::to_string(quantum) : std::string("unknown"));
    } else {
        fmt::print("Routing {} ({}, pid {}) to {} at {} Hz, {} ({} ch); asked {} frames, quantum {}.\n", t.displayName,
                   t.bundleID, t.pid, route.deviceName(), rate, format.layoutDescription, format.channelCount, frames,
                   quantum ? std::to_string(quantum) : std::string("unknown"));
    }
    if (const int n = route.chain()->leftOutSectionCount(); n > 0 && !options_.json)
        fmt::print("  {} filter setting{} cannot run at {} Hz and {} left out.\n", n, n == 1 ? "" : "s", rate,
                   n == 1 ? "is" : "are");
    std::fflush(stdout);
}

void TapSession::fail(std::string message) {
    if (failure_.empty()) failure_ = std::move(message);
    loop_.quit();
}

std::string TapSession::deviceFailure(const LiveRoute& route, bool noDefault) const {
    const auto& format = route.format();
    if (noDefault)
        return fmt::format("the output device \"{}\" ({}) went away and there is no default output device to follow; "
                           "the route ended",
                           route.deviceName(), format.outputDeviceUID);
    return fmt::format("the output device \"{}\" ({}) went away; the route ended", route.deviceName(),
                       format.outputDeviceUID);
}

// A route ends when its application quits. A stream that closes while the application goes on
// (a browser after a pause) leaves the route waiting for the next one.
void TapSession::onProcessesChanged() {
    const auto& present = discovery_->entries();
    for (auto& r : routes_) {
        if (!r->isRunning()) continue;
        if (r->follow(present, ProcessTree::system()) != LiveRoute::Presence::quit) continue;
        r->stop();
        const auto& t = r->application();
        if (options_.json)
            fmt::print("{}\n", nlohmann::json{{"event", "appQuit"}, {"app", t.displayName}, {"pid", t.pid}}.dump());
        else
            fmt::print("{} (pid {}) quit; its route ended.\n", t.displayName, t.pid);
        std::fflush(stdout);
    }
    if (std::none_of(routes_.begin(), routes_.end(), [](const auto& r) { return r->isRunning(); })) loop_.quit();
}

// Each route moves with the default output when it follows it; the new engine starts before the
// old one stops, so the application's streams go straight from one capture to the other.
void TapSession::onDevicesChanged() {
    bool lostDevice = false;
    for (auto& r : routes_) {
        if (!r->isRunning()) continue;
        auto move = r->followDevices();
        if (move.moved) {
            awaitingDefault_ = false;
            announce(*r, "deviceChanged", r->sampleRate());
        } else if (move.failure) {
            if (!followsDefault()) return fail(deviceFailure(*r, false));
            lostDevice = true;
        }
    }
    // No default for now. The session manager names the next one a moment later, if there is one.
    if (!lostDevice || awaitingDefault_) return;
    awaitingDefault_ = true;
    loop_.asyncAfter(newDefaultGraceSeconds, [this, wait = ++defaultWait_] {
        if (!awaitingDefault_ || wait != defaultWait_) return; // moved meanwhile, or a newer wait runs
        awaitingDefault_ = false;
        for (auto& r : routes_) {
            if (!r->isRunning() || r->isDevicePresent()) continue;
            auto move = r->followDevices();
            if (move.moved) announce(*r, "deviceChanged", r->sampleRate());
            else return fail(deviceFailure(*r, true));
        }
    });
}

// A route the sound server stopped while its device is still there ends the command; a device
// that went away is the device handling's business.
void TapSession::checkInterruptions() {
    for (auto& r : routes_) {
        if (!r->isRunning()) continue;
        try {
            platform_->connection().sync(); // a device removal that caused it is known after this
        } catch (const PipeWireError&) {
        }
        devices_->refresh(); // may move the route to a new default
        if (loop_.isQuitting()) return;
        if (auto interruption = r->interruption()) return fail(fmt::format("the route stopped: {}", *interruption));
    }
}

// Once a second: the meters, and whether an engine stopped. Engines report a stream the server
// stopped only when asked; the usual causes (a device or the application going away) wake the loop
// through the listeners at once, so the rare rest waits for this tick rather than costing the
// routes a wake-up of their own several times a second.
void TapSession::tick() {
    checkInterruptions();
    // An application that quits after its last stream closed changes nothing the server reports.
    if (!loop_.isQuitting()) onProcessesChanged();
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
            if (r->isRunning())
                list.push_back({{"app", r->application().displayName},
                                {"pid", r->application().pid},
                                {"inputPeak", r->chain()->inputMeter().currentPeak()},
                                {"outputPeak", r->chain()->outputMeter().currentPeak()},
                                {"nonFiniteInputSamples", r->chain()->nonFiniteInputSampleCount()}});
        fmt::print("{}\n", nlohmann::json{{"event", "meters"}, {"seconds", std::round(elapsed)}, {"routes", list}}.dump());
    } else {
        for (auto& r : routes_) {
            if (!r->isRunning()) continue;
            if (const auto bad = r->chain()->nonFiniteInputSampleCount())
                fmt::print("{:4.0f}s  {:<16}  in {} dBFS  out {} dBFS  ({} input samples not finite, silenced)\n",
                           elapsed, r->application().displayName, decibels(r->chain()->inputMeter().currentPeak()),
                           decibels(r->chain()->outputMeter().currentPeak()), bad);
            else
                fmt::print("{:4.0f}s  {:<16}  in {} dBFS  out {} dBFS\n", elapsed, r->application().displayName,
                           decibels(r->chain()->inputMeter().currentPeak()),
                           decibels(r->chain()->outputMeter().currentPeak()));
        }
    }
    std::fflush(stdout);
}

int TapSession::run() {
    connect();
    std::vector<Entry> targets;
    for (const auto& app : options_.apps) {
        auto target = resolveTarget(app);
        for (const auto& t : targets)
            if (t.objectID == target.objectID) throw CommandError(exitUsage, fmt::format("\"{}\" is named twice", app));
        targets.push_back(target);
        routes_.push_back(makeRoute(target, app));
    }

    for (auto& route : routes_) {
        double rate = 0;
        try {
            rate = route->start();
        } catch (const LiveRoute::Error& e) {
            const auto& t = route->application();
            routes_.clear(); // stops what started
            switch (e.kind()) {
            case LiveRoute::Error::Kind::noOutputDevice:
                throw CommandError(exitFailure, "there is no default output device (see `tarn devices`)");
            case LiveRoute::Error::Kind::outputDeviceUnavailable:
                throw CommandError(exitFailure,
                                   fmt::format("no output device \"{}\" (see `tarn devices`)", options_.deviceUID));
            case LiveRoute::Error::Kind::chain: throw CommandError(exitUsage, e.what());
            case LiveRoute::Error::Kind::engine:
                throw CommandError(exitFailure, fmt::format("cannot route {} (pid {}): {}", t.displayName, t.pid, e.what()));
            }
        }
        announce(*route, "started", rate);
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

    for (auto& r : routes_) r->stop();
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
    app->add_option("APP", options->apps, "Application to route: its pid (or its main process's), identity or name (see `tarn apps`)")
        ->required();
    app->add_option("--device", options->deviceUID,
                    "Output device UID (see `tarn devices`); default: the default output, followed when it changes")
        ->type_name("UID");
    app->add_option("--seconds", options->seconds, "Stop after this many seconds (default: until Ctrl-C)")
        ->type_name("N")
        ->check(positiveNumber(" s"));
    app->add_flag("--json", options->json, "Print one JSON object per event and per second");
    app->add_flag("--verbose", options->verbose, "Also log what the audio engines negotiate (buffer sizes)");
    options->chain.addTo(*app);
    return {app, [options] { return runTap(*options); }};
}

const CommandRegistration registration{"tap", 60, &makeTapCommand};

} // namespace
} // namespace tarn::cli
