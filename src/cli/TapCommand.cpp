#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <spdlog/spdlog.h>

#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/OutputDeviceLookup.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"

namespace tarn::cli {
namespace {

std::atomic<int> stopSignal{0};

void onStopSignal(int sig) { stopSignal.store(sig); }

struct TapOptions {
    std::vector<std::string> apps;
    std::string deviceUID;
    double seconds = 0.0;
    bool json = false;
    bool verbose = false;
    ChainOptions chain;
};

struct Target {
    AudioPlatform::ObjectID objectID = 0;
    int32_t pid = 0;
    std::string identity;
    std::string name;
};

std::string lowered(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::vector<Target> listTargets(AudioPlatform& platform) {
    std::vector<Target> out;
    std::vector<AudioPlatform::ObjectID> objects;
    if (platform.processObjectList(objects) != AudioPlatform::noError) return out;
    for (auto id : objects) {
        Target t;
        t.objectID = id;
        if (platform.processPID(id, t.pid) != AudioPlatform::noError) continue;
        platform.processBundleID(id, t.identity);
        if (auto app = platform.runningApplication(t.pid); app && app->localizedName) t.name = *app->localizedName;
        out.push_back(std::move(t));
    }
    return out;
}

// APP is a pid, an identity or a name (case-insensitive); it must name exactly one application.
Target resolveTarget(PipeWirePlatform& platform, const std::string& app) {
    std::vector<Target> matches;
    bool isPid = !app.empty() && app.find_first_not_of("0123456789") == std::string::npos;
    // An application that has just started may still be announcing itself: look again briefly.
    for (int attempt = 0; attempt < 10 && matches.empty(); ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            try {
                platform.connection().sync();
            } catch (const PipeWireError& e) {
                throw CommandError(exitFailure, e.what());
            }
        }
        for (const auto& t : listTargets(platform)) {
            if (isPid ? std::to_string(t.pid) == app
                      : (lowered(t.identity) == lowered(app) || lowered(t.name) == lowered(app)))
                matches.push_back(t);
        }
    }
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

std::string decibels(double linear) {
    if (!(linear > 1e-6)) return "  -inf";
    return fmt::format("{:6.1f}", 20.0 * std::log10(linear));
}

struct Route {
    Target target;
    std::shared_ptr<RouteDSPChain> chain;
    std::unique_ptr<RouteAudioEngine> engine;
    bool isRunning = false;
};

int runTap(TapOptions& options) {
    // The engines log buffer-size negotiation at info level; the meters are this command's output.
    if (!options.verbose) spdlog::set_level(spdlog::level::warn);
    options.chain.loadFiles();
    std::unique_ptr<PipeWirePlatform> platform;
    try {
        platform = std::make_unique<PipeWirePlatform>();
    } catch (const PipeWireError& e) {
        throw CommandError(exitFailure, e.what());
    }

    OutputDeviceLookup lookup(*platform);
    std::optional<std::string> uid;
    if (!options.deviceUID.empty()) uid = options.deviceUID;
    auto format = lookup.resolveRouteFormat(uid, std::nullopt, false);
    if (!format) {
        throw CommandError(exitFailure, options.deviceUID.empty()
                                            ? std::string("there is no default output device (see `tarn devices`)")
                                            : fmt::format("no output device \"{}\" (see `tarn devices`)", options.deviceUID));
    }
    options.chain.checkChannelCount(static_cast<int>(format->channelCount));
    auto deviceName = lookup.name(format->outputDeviceID).value_or(format->outputDeviceUID);

    std::vector<Route> routes;
    for (const auto& app : options.apps) {
        Route route;
        route.target = resolveTarget(*platform, app);
        for (const auto& r : routes)
            if (r.target.objectID == route.target.objectID)
                throw CommandError(exitUsage, fmt::format("\"{}\" is named twice", app));
        routes.push_back(std::move(route));
    }

    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);

    auto stopAll = [&] {
        for (auto& r : routes)
            if (r.isRunning) {
                r.engine->stop();
                r.isRunning = false;
            }
    };

    for (auto& route : routes) {
        // The chain is rebuilt at the capture's rate when the route starts.
        route.chain = std::make_shared<RouteDSPChain>(static_cast<int>(format->channelCount), 48000.0);
        options.chain.applyTo(*route.chain);
        auto frames = IOBufferPolicy::preferredFrames(route.target.identity, route.target.name);
        route.engine = std::make_unique<RouteAudioEngine>(*platform, route.target.identity, route.target.objectID,
                                                          *format, route.chain, 16384, frames);
        double rate = 0;
        try {
            rate = route.engine->start();
        } catch (const RouteAudioEngine::StartError& e) {
            stopAll();
            throw CommandError(exitFailure, fmt::format("cannot route {} (pid {}): {}", route.target.name,
                                                        route.target.pid, e.description()));
        }
        route.isRunning = true;
        uint32_t quantum = 0;
        for (int i = 0; i < 50 && platform->bufferFrameSize(format->outputDeviceID, quantum) != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (options.json) {
            fmt::print("{}\n", nlohmann::json{{"event", "started"},
                                              {"app", route.target.name},
                                              {"identity", route.target.identity},
                                              {"pid", route.target.pid},
                                              {"device", format->outputDeviceUID},
                                              {"sampleRate", rate},
                                              {"channelCount", format->channelCount},
                                              {"layout", format->layoutDescription},
                                              {"requestedFrames", frames},
                                              {"quantumFrames", quantum}}
                                   .dump());
        } else {
            fmt::print("Routing {} ({}, pid {}) to {} at {} Hz, {} ({} ch); asked {} frames, quantum {}.\n",
                       route.target.name, route.target.identity, route.target.pid, deviceName, rate,
                       format->layoutDescription, format->channelCount, frames,
                       quantum ? std::to_string(quantum) : std::string("unknown"));
        }
    }
    if (!options.json) fmt::print("Ctrl-C stops and returns the application to its normal output.\n");
    std::fflush(stdout);

    const auto started = std::chrono::steady_clock::now();
    auto nextMeter = started + std::chrono::seconds(1);
    int exitCode = exitOk;
    std::string failure;
    while (stopSignal.load() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        auto now = std::chrono::steady_clock::now();

        // A stream the sound server stopped ends the route; when its device went away, say so.
        std::optional<std::string> interruption;
        for (auto& r : routes)
            if (r.isRunning && !interruption) interruption = r.engine->interruption();
        if (interruption) {
            try {
                platform->connection().sync(); // a device removal that caused it is known after this
            } catch (const PipeWireError&) {
            }
        }
        AudioPlatform::ObjectID still = 0;
        if (platform->deviceForUID(format->outputDeviceUID, still) != AudioPlatform::noError) {
            failure = fmt::format("the output device \"{}\" ({}) went away; the route ended", deviceName,
                                  format->outputDeviceUID);
            exitCode = exitFailure;
            break;
        }
        if (interruption) {
            failure = fmt::format("the route stopped: {}", *interruption);
            exitCode = exitFailure;
            break;
        }
        // An application that quit ends its route; the command ends with the last one.
        auto present = listTargets(*platform);
        for (auto& r : routes) {
            if (!r.isRunning) continue;
            bool alive = std::any_of(present.begin(), present.end(), [&](auto& t) { return t.pid == r.target.pid; });
            if (!alive) {
                r.engine->stop();
                r.isRunning = false;
                if (options.json)
                    fmt::print("{}\n", nlohmann::json{{"event", "appQuit"}, {"app", r.target.name}, {"pid", r.target.pid}}
                                           .dump());
                else
                    fmt::print("{} (pid {}) quit; its route ended.\n", r.target.name, r.target.pid);
                std::fflush(stdout);
            }
        }
        if (std::none_of(routes.begin(), routes.end(), [](auto& r) { return r.isRunning; })) break;

        if (now >= nextMeter) {
            double elapsed = std::chrono::duration<double>(now - started).count();
            if (options.json) {
                auto list = nlohmann::json::array();
                for (auto& r : routes)
                    if (r.isRunning)
                        list.push_back({{"app", r.target.name},
                                        {"pid", r.target.pid},
                                        {"inputPeak", r.chain->inputMeter().currentPeak()},
                                        {"outputPeak", r.chain->outputMeter().currentPeak()}});
                fmt::print("{}\n", nlohmann::json{{"event", "meters"}, {"seconds", std::round(elapsed)}, {"routes", list}}
                                       .dump());
            } else {
                for (auto& r : routes)
                    if (r.isRunning)
                        fmt::print("{:4.0f}s  {:<16}  in {} dBFS  out {} dBFS\n", elapsed, r.target.name,
                                   decibels(r.chain->inputMeter().currentPeak()),
                                   decibels(r.chain->outputMeter().currentPeak()));
            }
            std::fflush(stdout);
            nextMeter += std::chrono::seconds(1);
        }
        if (options.seconds > 0 && now - started >= std::chrono::duration<double>(options.seconds)) break;
    }

    stopAll();
    auto xruns = platform->xrunCount();
    platform.reset(); // removes the capture sinks and the metadata; the applications go back
    if (!failure.empty()) throw CommandError(exitCode, failure);
    if (options.json)
        fmt::print("{}\n", nlohmann::json{{"event", "stopped"}, {"xruns", xruns}}.dump());
    else
        fmt::print("Stopped ({} xruns); the application is back on its normal output.\n", xruns);
    return exitCode;
}

Command makeTapCommand(CLI::App& root) {
    auto options = std::make_shared<TapOptions>();
    auto* app = root.add_subcommand(
        "tap", "Route applications live through a chain to an output device, printing meters once a second");
    app->add_option("APP", options->apps, "Application to route: its pid, identity or name (see `tarn apps`)")
        ->required();
    app->add_option("--device", options->deviceUID, "Output device UID (see `tarn devices`); default: the default")
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
