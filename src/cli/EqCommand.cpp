#include <filesystem>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "cli/ParametricEQFile.hpp"
#include "cli/ParametricFilterTable.hpp"
#include "core/io/JsonCodecs.hpp"

namespace tarn::cli {
namespace {

struct EqParseOptions {
    std::string file;
    bool json = false;
};

int runEqParse(const EqParseOptions& options) {
    const AutoEqParser::Result result = readParametricEQFile(options.file).parsed;
    const ImportedEQ& eq = result.eq;
    if (options.json) {
        auto skipped = nlohmann::json::array();
        for (const auto& s : result.skippedLines) skipped.push_back({{"line", s.lineNumber}, {"reason", s.reason}});
        const nlohmann::json out = {{"modelName", eq.modelName},
                                    {"preampDb", eq.preampDb},
                                    {"filters", eq.filters},
                                    {"skippedLines", skipped},
                                    {"skippedLineCount", result.skippedLineCount}};
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }
    fmt::print("{}\nPreamp: {}\n{} filter{}:\n{}", eq.modelName, formatDb(eq.preampDb), eq.filters.size(),
               eq.filters.size() == 1 ? "" : "s", parametricFilterTable(eq.filters));
    return exitOk;
}

Command makeEqCommand(CLI::App& root) {
    auto* app = root.add_subcommand("eq", "Work with parametric-EQ text files");
    app->require_subcommand(1);

    auto parseOptions = std::make_shared<EqParseOptions>();
    auto* parse = app->add_subcommand(
        "parse", "Read a parametric-EQ text file (\"Preamp: -6.2 dB\", \"Filter 1: ON PK Fc 105 Hz Gain 4 dB Q 0.7\")\n"
                 "and print its preamp and filters. Lines that are not filters are skipped, each with a warning\n"
                 "on stderr saying why.");
    parse->add_option("FILE", parseOptions->file, "The text file, for example an AutoEq ParametricEQ.txt")->required();
    parse->add_flag("--json", parseOptions->json, "Print {\"modelName\", \"preampDb\", \"filters\", \"skippedLines\", \"skippedLineCount\"} as JSON");

    return {app, [parse, parseOptions]() -> int {
                if (parse->parsed()) return runEqParse(*parseOptions);
                return exitUsage;
            }};
}

const CommandRegistration registration{"eq", 20, &makeEqCommand};

} // namespace
} // namespace tarn::cli
