#pragma once

// Every subcommand of `tarn` lives in its own file and registers itself with one line:
//
//     static const tarn::cli::CommandRegistration registration{"render", 10, &makeRenderCommand};
//
// The factory adds its subcommand to the root app and returns the function that runs it.

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tarn::cli {

// Exit codes shared by every command.
inline constexpr int exitOk = 0;
inline constexpr int exitFailure = 1;   // unreadable input, unwritable output, bad data
inline constexpr int exitUsage = 2;     // bad command line

// Thrown by a command to end with a one-line message on stderr and the given exit code.
struct CommandError : std::runtime_error {
    int exitCode;
    CommandError(int code, const std::string& message) : std::runtime_error(message), exitCode(code) {}
};

struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
};

using CommandFactory = Command (*)(CLI::App& root);

struct CommandRegistration {
    CommandRegistration(std::string name, int order, CommandFactory factory);
};

struct RegisteredCommand {
    std::string name;
    int order;
    CommandFactory factory;
};

std::vector<RegisteredCommand>& registeredCommands();

} // namespace tarn::cli
