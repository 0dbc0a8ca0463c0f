#include <algorithm>
#include <cstdio>
#include <exception>

#include <fmt/format.h>

#include "cli/Command.hpp"

namespace tarn::cli {

std::vector<RegisteredCommand>& registeredCommands() {
    static std::vector<RegisteredCommand> commands;
    return commands;
}

CommandRegistration::CommandRegistration(std::string name, int order, CommandFactory factory) {
    registeredCommands().push_back({std::move(name), order, factory});
}

} // namespace tarn::cli

int main(int argc, char** argv) {
    using namespace tarn::cli;
    CLI::App root{"Tarn: a per-application sound desk for Linux (PipeWire).", "tarn"};
    root.require_subcommand(1);
    root.set_version_flag("--version", "tarn 0.1.0");

    auto registrations = registeredCommands();
    std::sort(registrations.begin(), registrations.end(),
              [](const auto& a, const auto& b) { return a.order < b.order; });
    std::vector<Command> commands;
    for (const auto& r : registrations) commands.push_back(r.factory(root));

    try {
        root.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return root.exit(e);
    } catch (const CLI::ParseError& e) {
        // Bad usage: one line naming the problem, exit 2.
        std::string where = "tarn";
        for (const auto* sub : root.get_subcommands()) where += " " + sub->get_name();
        fmt::print(stderr, "{}: {}\n", where, e.what());
        return exitUsage;
    }

    try {
        for (auto& command : commands)
            if (command.app->parsed()) return command.run();
    } catch (const CommandError& e) {
        fmt::print(stderr, "tarn: {}\n", e.what());
        return e.exitCode;
    } catch (const std::exception& e) {
        fmt::print(stderr, "tarn: {}\n", e.what());
        return exitFailure;
    }
    return exitUsage;
}
