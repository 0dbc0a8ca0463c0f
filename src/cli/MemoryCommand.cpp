// tarn memory: look after AI Tune's song memory (SongMemories.json): see what it holds and how
// healthy each memory is, and sweep out the ones that can no longer help.

#include <cmath>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "cli/NumberOption.hpp"
#include "core/recommendation/SongMemoryStore.hpp"

namespace tarn::cli {
namespace {

struct MemoryOptions {
    std::string file;
    bool isJson = false;
    bool removeBroken = false;
    std::optional<double> idleDays;
};

std::filesystem::path memoryFile(const MemoryOptions& options) {
    if (!options.file.empty()) return options.file;
    try {
        return SongMemoryStore::defaultFileURL();
    } catch (const std::exception& e) {
        throw CommandError(exitFailure, e.what());
    }
}

// Opens the store; a file that exists but cannot be read is reported, never touched.
std::unique_ptr<SongMemoryStore> openStore(const MemoryOptions& options) {
    const auto path = memoryFile(options);
    std::unique_ptr<SongMemoryStore> store;
    try {
        store = std::make_unique<SongMemoryStore>(path);
    } catch (const std::invalid_argument& e) {
        throw CommandError(exitUsage, e.what());
    }
    if (auto error = store->lastError())
        throw CommandError(exitFailure, fmt::format("{} (the file is left as it is)", *error));
    return store;
}

std::string utcText(const Date& date) {
    if (!std::isfinite(date.secondsSinceReferenceDate)) return "unknown";
    const std::time_t t = std::time_t(std::floor(date.unixSeconds()));
    std::tm utc{};
    gmtime_r(&t, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

int runAudit(const MemoryOptions& options) {
    const auto store = openStore(options);
    const auto health = store->audit();
    std::map<SongMemoryHealth, int> counts;
    for (const auto& [key, h] : health) ++counts[h];

    if (options.isJson) {
        nlohmann::json out;
        out["file"] = store->fileURL().string();
        out["capacity"] = store->maxEntries();
        out["counts"] = {{"healthy", counts[SongMemoryHealth::healthy]},
                         {"incomplete", counts[SongMemoryHealth::incomplete]},
                         {"broken", counts[SongMemoryHealth::broken]}};
        out["memories"] = nlohmann::json::array();
        for (const auto& [key, h] : health) {
            const auto m = store->memory(key);
            nlohmann::json entry = {{"key", key}, {"health", toString(h)}, {"playCount", m->playCount},
                                    {"timelineSeconds", m->timelineSeconds()}};
            if (std::isfinite(m->lastPlayedAt.secondsSinceReferenceDate))
                entry["lastPlayedAt"] = m->lastPlayedAt.secondsSinceReferenceDate;
            if (auto coverage = m->coverageFraction(); coverage && std::isfinite(*coverage)) entry["coverage"] = *coverage;
            if (m->genre) entry["genre"] = *m->genre;
            out["memories"].push_back(entry);
        }
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }

    fmt::print("{}: {} of {} songs remembered — {} healthy, {} incomplete, {} broken\n", store->fileURL().string(),
               health.size(), store->maxEntries(), counts[SongMemoryHealth::healthy],
               counts[SongMemoryHealth::incomplete], counts[SongMemoryHealth::broken]);
    if (health.empty()) return exitOk;
    fmt::print("\n  {:<12}  {:<10}  {:>5}  {:<20}  {:>8}  {}\n", "KEY", "HEALTH", "PLAYS", "LAST PLAYED", "COVERAGE",
               "GENRE");
    for (const auto& [key, h] : health) {
        const auto m = store->memory(key);
        const auto coverage = m->coverageFraction();
        fmt::print("  {:<12}  {:<10}  {:>5}  {:<20}  {:>8}  {}\n", key.substr(0, 12), toString(h), m->playCount,
                   utcText(m->lastPlayedAt),
                   coverage && std::isfinite(*coverage) ? fmt::format("{:.0f}%", *coverage * 100) : "—",
                   m->genre.value_or(""));
    }
    return exitOk;
}

int runSweep(const MemoryOptions& options) {
    if (!options.removeBroken && !options.idleDays)
        throw CommandError(exitUsage, "nothing to sweep: give --remove-broken, --idle-days N or both");
    const auto store = openStore(options);
    std::optional<Date> idleBefore;
    if (options.idleDays) idleBefore = Date{Date::now().secondsSinceReferenceDate - *options.idleDays * 86400.0};
    const auto report = store->sweep(options.removeBroken, idleBefore);
    store->flush();
    if (auto error = store->lastError()) throw CommandError(exitFailure, *error);

    if (options.isJson) {
        nlohmann::json out = {{"file", store->fileURL().string()},
                              {"healthyKept", report.healthyKept},
                              {"brokenRemoved", report.brokenRemoved},
                              {"brokenKept", report.brokenKept},
                              {"incompleteRemoved", report.incompleteRemoved},
                              {"incompleteSpared", report.incompleteSpared},
                              {"totalRemoved", report.totalRemoved()},
                              {"totalKept", report.totalKept()}};
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }
    fmt::print("{}: removed {} ({} broken, {} incomplete and idle), kept {} ({} healthy, {} broken, {} incomplete)\n",
               store->fileURL().string(), report.totalRemoved(), report.brokenRemoved, report.incompleteRemoved,
               report.totalKept(), report.healthyKept, report.brokenKept, report.incompleteSpared);
    return exitOk;
}

Command makeMemoryCommand(CLI::App& root) {
    auto options = std::make_shared<MemoryOptions>();
    auto* app = root.add_subcommand("memory", "Look after AI Tune's song memory (the songs it has learnt)");
    app->require_subcommand(1);
    app->footer("The memory lives in $XDG_DATA_HOME/tarn/SongMemories.json (default ~/.local/share/tarn/).\n"
                "healthy: replayable; incomplete: its timeline covers under 90% of the song; broken: damaged.");

    auto* audit = app->add_subcommand("audit", "List the remembered songs and how healthy each memory is");
    auto* sweep = app->add_subcommand("sweep", "Remove broken memories and incomplete ones not played for a while");
    for (auto* sub : {audit, sweep}) {
        sub->add_option("--file", options->file, "Song memory file (default: the user's)")->type_name("PATH");
        sub->add_flag("--json", options->isJson, "Print the result as JSON");
    }
    sweep->add_flag("--remove-broken", options->removeBroken, "Remove memories that are damaged");
    sweep->add_option("--idle-days", options->idleDays, "Remove incomplete memories last played over N days ago")
        ->type_name("N")
        ->check(nonNegativeNumber(" days"));

    return {app, [options, audit] { return audit->parsed() ? runAudit(*options) : runSweep(*options); }};
}

const CommandRegistration registration{"memory", 45, &makeMemoryCommand};

} // namespace
} // namespace tarn::cli
