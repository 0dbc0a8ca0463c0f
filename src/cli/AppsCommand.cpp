#include <map>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Applications.hpp"
#include "cli/Command.hpp"
#include "core/audio/ControlLoop.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"

namespace tarn::cli {
namespace {

struct AppsOptions {
    bool json = false;
};

// Stream node ids are a PipeWire detail the platform interface does not carry; scripts use them
// to see an application's streams come and go.
std::map<uint32_t, std::vector<uint32_t>> streamsByObject(PipeWirePlatform& platform) {
    std::map<uint32_t, std::vector<uint32_t>> streams;
    for (const auto& app : PipeWireApplication::list(platform.connection().graph()))
        streams[app.objectID] = app.streamNodeIDs;
    return streams;
}

int runApps(const AppsOptions& options) {
    std::unique_ptr<PipeWirePlatform> platform;
    try {
        platform = std::make_unique<PipeWirePlatform>();
    } catch (const PipeWireError& e) {
        throw CommandError(exitFailure, e.what());
    }
    // One look at the list: no listeners, so the loop never runs.
    ControlLoop loop;
    ProcessDiscoveryService discovery(*platform, loop);
    discovery.refresh();
    const auto& apps = discovery.entries();

    if (options.json) {
        const auto streams = streamsByObject(*platform);
        auto out = nlohmann::json::array();
        for (const auto& app : apps) {
            out.push_back({{"objectID", app.objectID},
                           {"pid", app.pid},
                           {"identity", app.bundleID},
                           {"name", app.displayName},
                           {"isRunningOutput", app.isRunningOutput},
                           {"category", Applications::category(app)},
                           {"bufferFrames", IOBufferPolicy::preferredFrames(app.bundleID, app.displayName)},
                           {"streams", streams.count(app.objectID) ? streams.at(app.objectID)
                                                                   : std::vector<uint32_t>{}}});
        }
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }
    if (apps.empty()) {
        fmt::print("No application is playing audio.\n");
        return exitOk;
    }
    fmt::print("{:>7}  {:>8}  {:<8}  {:<13}  {:<28}  {}\n", "OBJECT", "PID", "STATE", "CATEGORY", "IDENTITY", "NAME");
    for (const auto& app : apps)
        fmt::print("{:>7}  {:>8}  {:<8}  {:<13}  {:<28}  {}\n", app.objectID, app.pid,
                   app.isRunningOutput ? "playing" : "idle", Applications::category(app), app.bundleID,
                   app.displayName);
    return exitOk;
}

Command makeAppsCommand(CLI::App& root) {
    auto options = std::make_shared<AppsOptions>();
    auto* app = root.add_subcommand("apps", "List the applications that have audio output streams");
    app->add_flag("--json", options->json, "Print a JSON array instead of a table");
    return {app, [options] { return runApps(*options); }};
}

const CommandRegistration registration{"apps", 50, &makeAppsCommand};

} // namespace
} // namespace tarn::cli
