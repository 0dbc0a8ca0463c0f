#include <ctime>
#include <memory>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "cli/ParametricEQFile.hpp"
#include "cli/ParametricFilterTable.hpp"
#include "core/io/JsonCodecs.hpp"
#include "core/io/PresetStore.hpp"

namespace tarn::cli {
namespace {

struct PresetsOptions {
    bool json = false;
    std::string file;
    std::optional<std::string> name;
    std::string id;
};

std::string localTime(Date date) {
    const std::time_t t = static_cast<std::time_t>(date.unixSeconds());
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

PresetStore openStore() {
    try {
        return PresetStore(PreferencesStore::standard());
    } catch (const PreferencesStore::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
}

// Listing or deleting from a list that cannot be read would only mislead: say so and stop.
void requireReadable(const PresetStore& store) {
    if (store.loadProblem())
        throw CommandError(exitFailure, fmt::format("{}; the file is left as it is", *store.loadProblem()));
}

std::string summary(const EQPreset& p) {
    std::string parts = std::string(baseName(p.selectedGenre));
    if (p.hasParametricFilters())
        parts += fmt::format(", {} parametric filter{}, preamp {}", p.parametricFilters.size(),
                             p.parametricFilters.size() == 1 ? "" : "s", formatDb(p.parametricPreampDb));
    if (p.correctionProfileID) parts += ", correction " + *p.correctionProfileID;
    parts += ", trim " + formatDb(p.outputTrimDb);
    return parts;
}

int runList(const PresetsOptions& options) {
    const PresetStore store = openStore();
    requireReadable(store);
    if (options.json) {
        fmt::print("{}\n", nlohmann::json(store.presets()).dump(2));
        return exitOk;
    }
    if (store.presets().empty()) {
        fmt::print("No saved presets. Import one with: tarn presets import FILE\n");
        return exitOk;
    }
    for (const auto& p : store.presets())
        fmt::print("{}  {}  {}  ({})\n", p.id.string(), localTime(p.createdAt), p.name, summary(p));
    return exitOk;
}

int runImport(const PresetsOptions& options) {
    ImportedEQ imported = readParametricEQFile(options.file).parsed.eq;
    if (options.name) {
        if (options.name->find_first_not_of(" \t") == std::string::npos)
            throw CommandError(exitUsage, "--name must not be empty");
        imported.modelName = *options.name;
    }
    PresetStore store = openStore();
    const EQPreset preset = EQPreset::imported(imported);
    try {
        store.save(preset);
    } catch (const PreferencesStore::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
    if (store.setAsidePath())
        fmt::print(stderr, "tarn: note: {}; it was kept as {}\n", *store.loadProblem(), store.setAsidePath()->string());
    if (options.json) {
        fmt::print("{}\n", nlohmann::json(preset).dump(2));
        return exitOk;
    }
    fmt::print("Imported \"{}\" as preset {} ({}).\n", preset.name, preset.id.string(), summary(preset));
    return exitOk;
}

int runDelete(const PresetsOptions& options) {
    const auto id = UUID::fromString(options.id);
    if (!id) throw CommandError(exitUsage, fmt::format("\"{}\" is not a preset id (see tarn presets list)", options.id));
    PresetStore store = openStore();
    requireReadable(store);
    const EQPreset* existing = store.preset(*id);
    if (!existing) throw CommandError(exitFailure, fmt::format("no saved preset has the id {}", id->string()));
    const std::string name = existing->name;
    try {
        store.remove(*id);
    } catch (const PreferencesStore::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
    fmt::print("Deleted preset \"{}\".\n", name);
    return exitOk;
}

Command makePresetsCommand(CLI::App& root) {
    auto* app = root.add_subcommand("presets", "List, import and delete saved EQ presets");
    app->require_subcommand(1);
    app->footer("Presets are stored in $XDG_CONFIG_HOME/tarn (TARN_CONFIG_DIR overrides the folder).");
    auto options = std::make_shared<PresetsOptions>();

    auto* list = app->add_subcommand("list", "List the saved presets, newest first");
    list->add_flag("--json", options->json, "Print the presets as a JSON array");

    auto* import = app->add_subcommand(
        "import", "Save a parametric-EQ text file as a new preset (flat bands, output trim -3 dB)");
    import->add_option("FILE", options->file, "The parametric-EQ text file, for example an AutoEq ParametricEQ.txt")
        ->required();
    import->add_option("--name", options->name, "Name of the preset (default: the file name without its extension)");
    import->add_flag("--json", options->json, "Print the saved preset as JSON");

    auto* remove = app->add_subcommand("delete", "Delete a saved preset");
    remove->add_option("ID", options->id, "The preset's id, as `tarn presets list` shows it")->required();

    return {app, [=]() -> int {
                if (list->parsed()) return runList(*options);
                if (import->parsed()) return runImport(*options);
                if (remove->parsed()) return runDelete(*options);
                return exitUsage;
            }};
}

const CommandRegistration registration{"presets", 30, &makePresetsCommand};

} // namespace
} // namespace tarn::cli
