#include <fmt/format.h>

#include "cli/Command.hpp"

namespace tarn::cli {
namespace {

Command makeVersionCommand(CLI::App& root) {
    auto* app = root.add_subcommand("version", "Print the version of tarn");
    return {app, [] {
                fmt::print("tarn 0.1.0\n");
                return exitOk;
            }};
}

const CommandRegistration registration{"version", 1000, &makeVersionCommand};

} // namespace
} // namespace tarn::cli
