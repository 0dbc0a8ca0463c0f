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
        CLI::App* deepest = &root;
        for (;;) {
            const auto parsed = deepest->get_subcommands();
            if (parsed.empty()) break;
            deepest = parsed.front();
            where += " " + deepest->get_name();
        }
        // A word that is not one of the commands: name it, rather than say that one is missing.
        const auto rest = deepest->remaining();
        if (deepest->get_require_subcommand_min() > 0 && !rest.empty() && !rest.front().starts_with("-")) {
            std::string names;
            for (const auto* sub : deepest->get_subcommands([](CLI::App*) { return true; }))
                names += (names.empty() ? "" : ", ") + sub->get_name();
            fmt::print(stderr, "{}: unknown command \"{}\" (one of: {})\n", where, rest.front(), names);
            return exitUsage;
        }
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
