#include <algorithm>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "cli/ParametricFilterTable.hpp"
#include "core/io/JsonCodecs.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "core/profiles/SearchText.hpp"

namespace tarn::cli {
namespace {

constexpr std::size_t defaultSearchLimit = 20;

struct ProfilesOptions {
    bool json = false;
    std::vector<std::string> words; // `tarn profiles search hd 600` needs no quotes
    std::optional<std::size_t> limit;
    std::string id;
    std::string brand;
};

const BundledProfileCatalog& catalog() {
    const auto& shipped = BundledProfileCatalog::shared();
    try {
        (void)shipped.profiles();
    } catch (const BundledProfileCatalog::LoadError& e) {
        throw CommandError(exitFailure, e.what());
    }
    return shipped;
}

void printJSON(const std::vector<const HeadphoneProfile*>& profiles) {
    auto out = nlohmann::json::array();
    for (const auto* p : profiles) out.push_back(*p);
    fmt::print("{}\n", out.dump(2));
}

// Characters as a terminal shows them; the catalogue's names are Latin script, one column each.
std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (char c : text)
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++width;
    return width;
}

std::string_view measuredBy(const HeadphoneProfile& p) {
    return p.measurementProvider ? std::string_view(*p.measurementProvider) : std::string_view("-");
}

void printTable(const std::vector<const HeadphoneProfile*>& profiles) {
    // Columns as wide as what is shown, so one model from two sources lines up on its name.
    std::size_t nameWidth = 0, sourceWidth = 0;
    for (const auto* p : profiles) {
        nameWidth = std::max(nameWidth, displayWidth(p->modelName));
        sourceWidth = std::max(sourceWidth, displayWidth(measuredBy(*p)));
    }
    for (const auto* p : profiles)
        fmt::print("{} {}{:{}}  {:<9}  {:<{}}  {}\n", p->isFeatured ? '*' : ' ', p->modelName, "",
                   nameWidth - displayWidth(p->modelName), p->wearStyle ? toString(*p->wearStyle) : "", measuredBy(*p),
                   sourceWidth, p->id);
}

int runSearch(const ProfilesOptions& options) {
    const auto& c = catalog();
    std::string text;
    for (const auto& word : options.words) text += (text.empty() ? "" : " ") + word;
    const bool featuredOnly = SearchText::tokens(SearchText::fold(text)).empty();
    // The featured list is short and curated: show it whole unless asked otherwise.
    std::size_t limit = options.limit.value_or(featuredOnly ? BundledProfileCatalog::unlimited : defaultSearchLimit);
    if (limit == 0) limit = BundledProfileCatalog::unlimited;
    const auto all = c.search(text);
    const std::vector<const HeadphoneProfile*> shown(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(limit, all.size())));
    if (options.json) {
        printJSON(shown);
        return exitOk;
    }
    if (all.empty()) {
        fmt::print("No headphone matches \"{}\". Try fewer letters, or: tarn profiles brands\n", text);
        return exitOk;
    }
    printTable(shown);
    if (shown.size() < all.size())
        fmt::print(stderr, "{} more; show them with --limit {} (or --limit 0 for all)\n", all.size() - shown.size(), all.size());
    return exitOk;
}

int runShow(const ProfilesOptions& options) {
    const auto& c = catalog();
    const HeadphoneProfile* p = c.profile(options.id);
    if (!p) {
        std::string hint = "find ids with: tarn profiles search TEXT";
        // An id names its source and wear style before the model; a mistyped one usually still
        // holds the model ("rtings.over-ear.sennheiser-hd-600").
        const std::string_view typed = options.id;
        auto guesses = c.search(typed, 1);
        if (const auto dot = typed.rfind('.'); guesses.empty() && dot != std::string_view::npos)
            guesses = c.search(typed.substr(dot + 1), 1);
        if (!guesses.empty())
            hint = fmt::format("did you mean {} ({})?", guesses.front()->id, guesses.front()->modelName);
        throw CommandError(exitFailure, fmt::format("no headphone profile has the id \"{}\"; {}", options.id, hint));
    }
    if (options.json) {
        fmt::print("{}\n", nlohmann::json(*p).dump(2));
        return exitOk;
    }
    fmt::print("{}\n", p->modelName);
    fmt::print("  Brand:       {}\n", BundledProfileCatalog::brandOf(p->modelName));
    fmt::print("  Id:          {}\n", p->id);
    if (p->wearStyle) fmt::print("  Wear style:  {}\n", toString(*p->wearStyle));
    fmt::print("  Measured by: {}\n", measuredBy(*p));
    fmt::print("  Source:      {}\n", p->sourceProject);
    if (p->sourceURL) fmt::print("  URL:         {}\n", *p->sourceURL);
    if (p->isFeatured) fmt::print("  Featured\n");
    fmt::print("  Preamp:      {}\n  {} filter{}:\n{}", formatDb(p->preampDb), p->filters.size(),
               p->filters.size() == 1 ? "" : "s", parametricFilterTable(p->filters));
    return exitOk;
}

int runBrands(const ProfilesOptions& options) {
    const auto& c = catalog();
    const auto brands = c.brands();
    if (options.json) {
        fmt::print("{}\n", nlohmann::json(brands).dump(2));
        return exitOk;
    }
    for (const auto& brand : brands) fmt::print("{:<24} {:>3}\n", brand, c.models(brand).size());
    return exitOk;
}

int runModels(const ProfilesOptions& options) {
    const auto& c = catalog();
    const auto models = c.models(options.brand);
    if (models.empty()) {
        // Suggest the brands the typed text could have meant.
        std::vector<std::string> close;
        const std::string typed = SearchText::compact(options.brand);
        for (const auto& brand : c.brands())
            if (!typed.empty() && SearchText::compact(brand).find(typed) != std::string::npos) close.push_back(brand);
        std::string hint = "list them with: tarn profiles brands";
        if (!close.empty()) {
            hint = "did you mean ";
            for (std::size_t i = 0; i < close.size() && i < 5; ++i) hint += (i ? ", \"" : "\"") + close[i] + "\"";
            hint += "?";
        }
        throw CommandError(exitFailure, fmt::format("no brand named \"{}\"; {}", options.brand, hint));
    }
    if (options.json)
        printJSON(models);
    else
        printTable(models);
    return exitOk;
}

Command makeProfilesCommand(CLI::App& root) {
    auto* app = root.add_subcommand("profiles", "Find headphone correction profiles in the shipped catalogue");
    app->require_subcommand(1);
    app->footer(
        "The headphone catalogue holds the published parametric equalisation results of the AutoEq\n"
        "project (https://github.com/jaakkopasanen/AutoEq), from measurements by oratory1990,\n"
        "crinacle and Rtings; every profile names the source that measured it, and a model measured\n"
        "by more than one is listed once per source. They are distributed under the MIT licence;\n"
        "see profiles/LICENSE in Tarn's data folder (share/tarn, or data/ in the source tree).\n"
        "TARN_DATA_DIR overrides the data folder.");
    auto options = std::make_shared<ProfilesOptions>();

    auto* search = app->add_subcommand(
        "search", "Search by brand, model, source or wear style as you would type it (\"hd 6\", \"dt770\",\n"
                  "\"crinacle moondrop\", \"sony in-ear\"); best match first. Each line shows the model, its\n"
                  "wear style, the source that measured it and its id. An empty TEXT lists the featured\n"
                  "profiles; * marks featured profiles.");
    search->add_option("TEXT", options->words,
                       "Words to find; each must start a word of the brand, model, source or wear style")
        ->required();
    search->add_option("--limit", options->limit, "At most N results (default 20, featured list whole; 0 for all)")
        ->check(CLI::NonNegativeNumber);
    search->add_flag("--json", options->json, "Print the profiles as a JSON array");

    auto* show = app->add_subcommand("show", "Show one profile with its preamp and filters");
    show->add_option("ID", options->id, "The profile's id, as search shows it")->required();
    show->add_flag("--json", options->json, "Print the profile as JSON");

    auto* brands = app->add_subcommand("brands", "List the brands with their number of models");
    brands->add_flag("--json", options->json, "Print the brands as a JSON array of names");

    auto* models = app->add_subcommand("models", "List the profiles of one brand");
    models->add_option("BRAND", options->brand, "The brand, as `tarn profiles brands` lists it (any case)")->required();
    models->add_flag("--json", options->json, "Print the profiles as a JSON array");

    return {app, [=]() -> int {
                if (search->parsed()) return runSearch(*options);
                if (show->parsed()) return runShow(*options);
                if (brands->parsed()) return runBrands(*options);
                if (models->parsed()) return runModels(*options);
                return exitUsage;
            }};
}

const CommandRegistration registration{"profiles", 40, &makeProfilesCommand};

} // namespace
} // namespace tarn::cli
