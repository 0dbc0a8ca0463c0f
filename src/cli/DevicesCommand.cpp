#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn::cli {
namespace {

struct DevicesOptions {
    bool json = false;
};

int runDevices(const DevicesOptions& options) {
    std::shared_ptr<PipeWireConnection> connection;
    try {
        connection = PipeWireConnection::connect();
    } catch (const PipeWireError& e) {
        throw CommandError(exitFailure, e.what());
    }
    auto devices = PipeWireDevice::list(connection->graph());
    if (options.json) {
        auto out = nlohmann::json::array();
        for (const auto& d : devices) {
            out.push_back({{"uid", d.uid},
                           {"name", d.name},
                           {"nodeID", d.nodeID},
                           {"isDefault", d.isDefault},
                           {"channelCount", d.channelCount},
                           {"positions", d.positions}});
        }
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }
    if (devices.empty()) {
        fmt::print("No output device.\n");
        return exitOk;
    }
    fmt::print("  {:<32}  {:<24}  {:>3}  {}\n", "UID", "NAME", "CH", "LAYOUT");
    for (const auto& d : devices)
        fmt::print("{} {:<32}  {:<24}  {:>3}  {}\n", d.isDefault ? '*' : ' ', d.uid, d.name, d.channelCount,
                   fmt::join(d.positions, " "));
    return exitOk;
}

Command makeDevicesCommand(CLI::App& root) {
    auto options = std::make_shared<DevicesOptions>();
    auto* app = root.add_subcommand("devices", "List the output devices; * marks the default");
    app->add_flag("--json", options->json, "Print a JSON array instead of a table");
    return {app, [options] { return runDevices(*options); }};
}

const CommandRegistration registration{"devices", 51, &makeDevicesCommand};

} // namespace
} // namespace tarn::cli
