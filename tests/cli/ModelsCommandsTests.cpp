// The eq, presets and profiles commands, run as a user runs them: the built `tarn` program
// with its own preferences folder.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/io/JsonCodecs.hpp"
#include "core/io/PresetStore.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "support/ProcessRunner.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kAria = "Preamp: -6.7 dB\n"
                              "Filter 1: ON LSC Fc 105 Hz Gain 12.2 dB Q 0.70\n"
                              "Filter 2: ON PK Fc 61 Hz Gain -10.1 dB Q 0.34\n";
const std::vector<ParametricFilterSpec> ariaFilters = {{ParametricFilterSpec::Shape::lowShelf, 105, 12.2, 0.7},
                                                      {ParametricFilterSpec::Shape::peaking, 61, -10.1, 0.34}};

class CommandLine : public ::testing::Test {
protected:
    test::ProcessResult tarn(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), TARN_CLI_PATH);
        return test::runProcess(arguments);
    }
    json tarnJSON(std::vector<std::string> arguments) {
        const auto result = tarn(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.standardError;
        return json::parse(result.standardOutput);
    }
    fs::path write(const std::string& name, const std::string& text) { return test::writeText(dir_ / name, text); }
    fs::path presetsFile() const { return dir_ / "config" / "Tarn.savedPresets.v1.json"; }

    test::TemporaryDirectory dir_;
    test::ScopedEnvironment config_{"TARN_CONFIG_DIR", (dir_ / "config").string()};
};

TEST_F(CommandLine, EqParsePrintsThePreampAndFilters) {
    const auto file = write("Moondrop Aria.txt", kAria);
    const json out = tarnJSON({"eq", "parse", file.string(), "--json"});
    EXPECT_EQ(out["modelName"], "Moondrop Aria");
    EXPECT_EQ(out["preampDb"], -6.7);
    EXPECT_EQ(out["filters"].get<std::vector<ParametricFilterSpec>>(), ariaFilters);

    const auto human = tarn({"eq", "parse", file.string()});
    EXPECT_EQ(human.exitCode, 0);
    EXPECT_NE(human.standardOutput.find("-6.7 dB"), std::string::npos) << human.standardOutput;
    EXPECT_NE(human.standardOutput.find("lowShelf"), std::string::npos);

    const auto noFilters = tarn({"eq", "parse", write("notes.txt", "Preamp: -3 dB\nFilter 1: OFF PK Fc 1 Hz Gain 1 dB Q 1\n").string()});
    EXPECT_EQ(noFilters.exitCode, 1);
    EXPECT_NE(noFilters.standardError.find("notes.txt"), std::string::npos) << noFilters.standardError;
    EXPECT_TRUE(noFilters.standardOutput.empty());

    const auto missing = tarn({"eq", "parse", (dir_ / "absent.txt").string()});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.standardError.find("absent.txt"), std::string::npos);
    EXPECT_EQ(tarn({"eq", "parse"}).exitCode, 2);
    EXPECT_EQ(tarn({"eq", "parse", file.string(), "--bogus"}).exitCode, 2);
}

TEST_F(CommandLine, PresetsImportListDeleteShareTheDeskStore) {
    const auto aria = write("Moondrop Aria.txt", kAria);
    EXPECT_EQ(tarnJSON({"presets", "list", "--json"}), json::array());

    const json first = tarnJSON({"presets", "import", aria.string(), "--json"});
    const json second = tarnJSON({"presets", "import", aria.string(), "--name", "Aria, my fit", "--json"});
    const json list = tarnJSON({"presets", "list", "--json"});
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], second); // newest first
    EXPECT_EQ(list[1], first);
    const auto imported = first.get<EQPreset>();
    EXPECT_EQ(imported.name, "Moondrop Aria");
    EXPECT_EQ(imported.outputTrimDb, -3.0);
    EXPECT_EQ(imported.selectedGenre, GenrePreset::flat);
    EXPECT_EQ(imported.bandGains, std::vector<double>(10, 0.0));
    EXPECT_EQ(imported.parametricPreampDb, -6.7);
    EXPECT_EQ(imported.parametricFilters, ariaFilters);
    EXPECT_EQ(second["name"], "Aria, my fit");

    // The desk reads the same document.
    const PresetStore desk{PreferencesStore(dir_ / "config")};
    ASSERT_EQ(desk.presets().size(), 2u);
    EXPECT_EQ(json(desk.presets()), list);

    const std::string id = second["id"];
    const auto deleted = tarn({"presets", "delete", id});
    EXPECT_EQ(deleted.exitCode, 0) << deleted.standardError;
    EXPECT_EQ(tarnJSON({"presets", "list", "--json"}), json::array({first}));
    EXPECT_EQ(tarn({"presets", "delete", id}).exitCode, 1);
    EXPECT_EQ(tarn({"presets", "delete", "not-an-id"}).exitCode, 2);
    EXPECT_EQ(tarn({"presets", "import", aria.string(), "--name", " "}).exitCode, 2);

    const std::string before = test::readText(presetsFile());
    const auto badImport = tarn({"presets", "import", write("empty.txt", "").string()});
    EXPECT_EQ(badImport.exitCode, 1);
    EXPECT_EQ(test::readText(presetsFile()), before); // nothing saved
}

TEST_F(CommandLine, DamagedPresetsAreReportedAndNeverLost) {
    const std::string damaged = R"([{"id": "3C1A9E2B-7D4F-4A6B-8C0D-1E2F3A4B5C6D", "name": "no trim"}])";
    test::writeText(presetsFile(), damaged);

    const auto list = tarn({"presets", "list"});
    EXPECT_EQ(list.exitCode, 1);
    EXPECT_NE(list.standardError.find(presetsFile().string()), std::string::npos) << list.standardError;
    EXPECT_EQ(test::readText(presetsFile()), damaged);

    const auto imported = tarn({"presets", "import", write("IEM.txt", kAria).string()});
    EXPECT_EQ(imported.exitCode, 0) << imported.standardError;
    EXPECT_NE(imported.standardError.find("kept as"), std::string::npos) << imported.standardError;
    bool keptAside = false;
    for (const auto& e : fs::directory_iterator(dir_ / "config"))
        if (e.path() != presetsFile()) keptAside = test::readText(e.path()) == damaged;
    EXPECT_TRUE(keptAside);
    EXPECT_EQ(tarnJSON({"presets", "list", "--json"}).size(), 1u);
}

// The ranking itself is the catalogue's (tested with it): here the commands must print exactly it.
TEST_F(CommandLine, ProfilesSearchShowBrandsModels) {
    const BundledProfileCatalog catalog(fs::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    const auto asJSON = [](const std::vector<const HeadphoneProfile*>& profiles) {
        json list = json::array();
        for (const auto* p : profiles) list.push_back(*p);
        return list;
    };

    const json found = tarnJSON({"profiles", "search", "hd 6", "--json"});
    EXPECT_EQ(found, asJSON(catalog.search("hd 6")));
    EXPECT_EQ(tarnJSON({"profiles", "search", "hd", "6", "--json"}), found); // unquoted words work too
    EXPECT_EQ(tarnJSON({"profiles", "search", "hd 6", "--json", "--limit", "3"}), asJSON(catalog.search("hd 6", 3)));
    EXPECT_EQ(tarnJSON({"profiles", "search", "", "--json"}), asJSON(catalog.search("")));
    EXPECT_EQ(tarnJSON({"profiles", "search", "zzzz", "--json"}), json::array());
    EXPECT_EQ(tarn({"profiles", "search", "hd", "--limit", "-1"}).exitCode, 2);
    EXPECT_EQ(tarn({"profiles", "search"}).exitCode, 2);

    const json shown = tarnJSON({"profiles", "show", "oratory1990.over-ear.beyerdynamic-dt-770-pro", "--json"});
    EXPECT_EQ(shown, json(*catalog.profile("oratory1990.over-ear.beyerdynamic-dt-770-pro")));
    const auto unknown = tarn({"profiles", "show", "dt770"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_NE(unknown.standardError.find("beyerdynamic-dt-770"), std::string::npos) << unknown.standardError;

    EXPECT_EQ(tarnJSON({"profiles", "brands", "--json"}).get<std::vector<std::string>>(), catalog.brands());
    EXPECT_EQ(tarnJSON({"profiles", "models", "dan clark audio", "--json"}), asJSON(catalog.models("dan clark audio")));
    const auto noBrand = tarn({"profiles", "models", "Clark"});
    EXPECT_EQ(noBrand.exitCode, 1);
    EXPECT_NE(noBrand.standardError.find("Dan Clark Audio"), std::string::npos) << noBrand.standardError;
}

TEST_F(CommandLine, ProfilesCreditTheDataAndFailClearlyWithoutIt) {
    const auto help = tarn({"profiles", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* credit : {"AutoEq", "oratory1990", "MIT", "LICENSE"})
        EXPECT_NE(help.standardOutput.find(credit), std::string::npos) << credit;

    const test::ScopedEnvironment noData("TARN_DATA_DIR", (dir_ / "nowhere").string());
    const auto missing = tarn({"profiles", "search", "hd"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.standardError.find("nowhere"), std::string::npos) << missing.standardError;
    EXPECT_TRUE(missing.standardOutput.empty());
}

} // namespace
} // namespace tarn
