#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn::cli {
namespace {

struct AppsOptions {
    bool json = false;
};

int runApps(const AppsOptions& options) {
    std::shared_ptr<PipeWireConnection> connection;
    try {
        connection = PipeWireConnection::connect();
    } catch (const PipeWireError& e) {
        throw CommandError(exitFailure, e.what());
    }
    auto apps = PipeWireApplication::list(connection->graph());
    if (options.json) {
        auto out = nlohmann::json::array();
        for (const auto& app : apps) {
            out.push_back({{"objectID", app.objectID},
                           {"pid", app.pid},
                           {"identity", app.identity},
                           {"name", app.name},
                           {"isRunningOutput", app.isRunningOutput},
                           {"streams", app.streamNodeIDs}});
        }
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }
    if (apps.empty()) {
        fmt::print("No application is playing audio.\n");
        return exitOk;
    }
    fmt::print("{:>7}  {:>8}  {:<8}  {:<28}  {}\n", "OBJECT", "PID", "STATE", "IDENTITY", "NAME");
    for (const auto& app : apps)
        fmt::print("{:>7}  {:>8}  {:<8}  {:<28}  {}\n", app.objectID, app.pid,
                   app.isRunningOutput ? "playing" : "idle", app.identity, app.name);
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
