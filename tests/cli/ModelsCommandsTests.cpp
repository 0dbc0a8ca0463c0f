// The eq, presets and profiles commands, run as a user runs them: the built `tarn` program
// with its own preferences folder.
#include <algorithm>
#include <utility>

#include <fmt/format.h>
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
    // A clean failure: the exit code, one message naming what was wrong, nothing on stdout.
    void expectFailure(std::vector<std::string> arguments, int exitCode, const std::string& named) {
        const auto result = tarn(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.standardError;
        EXPECT_NE(result.standardError.find(named), std::string::npos) << result.standardError;
        EXPECT_TRUE(result.standardOutput.empty()) << result.standardOutput;
    }
    std::string write(const std::string& name, const std::string& text) { return test::writeText(dir_ / name, text).string(); }
    fs::path presetsFile() const { return dir_ / "config" / "Tarn.savedPresets.v1.json"; }

    test::TemporaryDirectory dir_;
    test::ScopedEnvironment config_{"TARN_CONFIG_DIR", (dir_ / "config").string()};
};

TEST_F(CommandLine, EqParseAndPresetsImportListDeleteShareTheDeskStore) {
    const auto aria = write("Moondrop Aria.txt", kAria);
    const json parsed = tarnJSON({"eq", "parse", aria, "--json"});
    EXPECT_EQ(parsed["preampDb"], -6.7);
    EXPECT_EQ(parsed["filters"].get<std::vector<ParametricFilterSpec>>(), ariaFilters);
    const json first = tarnJSON({"presets", "import", aria, "--json"});
    const json second = tarnJSON({"presets", "import", aria, "--name", "Aria, my fit", "--json"});
    const json list = tarnJSON({"presets", "list", "--json"});
    EXPECT_EQ(list, json::array({second, first})); // newest first
    const auto imported = first.get<EQPreset>();
    EXPECT_EQ(imported.name, "Moondrop Aria");
    EXPECT_EQ(imported.outputTrimDb, -3.0);
    EXPECT_EQ(imported.parametricPreampDb, -6.7);
    EXPECT_EQ(imported.parametricFilters, ariaFilters);
    EXPECT_EQ(json(PresetStore{PreferencesStore(dir_ / "config")}.presets()), list); // the desk reads the same

    EXPECT_EQ(tarn({"presets", "delete", second["id"]}).exitCode, 0);
    EXPECT_EQ(tarnJSON({"presets", "list", "--json"}), json::array({first}));
    expectFailure({"presets", "delete", second["id"]}, 1, second["id"]);

    const std::string before = test::readText(presetsFile());
    expectFailure({"presets", "import", write("empty.txt", "")}, 1, "empty.txt");
    expectFailure({"eq", "parse", write("notes.txt", "Filter 1: OFF PK Fc 1 Hz Gain 1 dB Q 1\n")}, 1, "notes.txt");
    EXPECT_EQ(test::readText(presetsFile()), before); // nothing saved
}

// One very long line used to crash every command that reads an EQ file; lines that were skipped
// went unmentioned.
TEST_F(CommandLine, EqFileReadersSurviveLongLinesAndNameEverySkippedLine) {
    const auto eq = write("long.txt", std::string(kAria) + "Filter 3: ON PK Fc " + std::string(300000, '1') +
                                          " Hz Gain 3 dB Q 1\nFilter 4: ON LP Fc 100 Hz Gain 0 dB Q 1\n");
    const auto warned = [&](const test::ProcessResult& r) {
        EXPECT_EQ(r.exitCode, 0) << r.standardError;
        EXPECT_NE(r.standardError.find("tarn: warning: " + eq + ":4: skipped: longer than 1000 characters"),
                  std::string::npos) << r.standardError;
        EXPECT_NE(r.standardError.find(eq + ":5: skipped: filter type \"LP\""), std::string::npos) << r.standardError;
    };
    const auto parsed = tarn({"eq", "parse", eq, "--json"});
    warned(parsed);
    const json j = json::parse(parsed.standardOutput);
    EXPECT_EQ(j["filters"].get<std::vector<ParametricFilterSpec>>(), ariaFilters);
    EXPECT_EQ(j["skippedLineCount"], 2);
    EXPECT_EQ(j["skippedLines"][0], (json{{"line", 4}, {"reason", "longer than 1000 characters"}}));
    warned(tarn({"presets", "import", eq}));

    const auto in = (dir_ / "in.wav").string();
    ASSERT_EQ(tarn({"generate-clip", in, "--seconds", "0.1"}).exitCode, 0);
    warned(tarn({"render", in, (dir_ / "out.wav").string(), "--parametric", eq}));

    // A value no filter can be built from stops every one of them, naming the file and the line.
    const auto zero = write("zero.txt", std::string(kAria) + "Filter 3: ON PK Fc 0 Hz Gain 3 dB Q 1\n");
    for (std::vector<std::string> command : {std::vector<std::string>{"eq", "parse", zero},
                                             {"presets", "import", zero},
                                             {"render", in, (dir_ / "out.wav").string(), "--parametric", zero}})
        expectFailure(command, 1, zero + ": line 4: frequency 0 Hz is not above 0 Hz");
}

// Usage mistakes get one line that names what was wrong, with numbers as people write them.
TEST_F(CommandLine, UsageMistakesAreNamedAndNumbersMustBeFiniteAndReadable) {
    const std::pair<std::vector<std::string>, std::string> mistakes[] = {
        {{"bogus"}, "tarn: unknown command \"bogus\" (one of: render, "},
        {{"presets", "bogus", "x"}, "tarn presets: unknown command \"bogus\" (one of: list, import, delete)"},
        {{"generate-clip", (dir_ / "x.wav").string(), "--seconds", "nan"}, "--seconds: \"nan\" is not a finite number"},
        {{"generate-clip", (dir_ / "x.wav").string(), "--seconds", "1e9"}, "--seconds: must be within 0.01..3600 s, got 1e9"},
        {{"analyze", write("a.wav", ""), "--lean", "nan"}, "--lean: \"nan\" is not a finite number"},
        {{"analyze", write("a.wav", ""), "--lean", "4.5"}, "--lean: must be within 0..4, got 4.5"},
        {{"memory", "sweep", "--idle-days", "nan"}, "--idle-days: \"nan\" is not a finite number"},
        {{"memory", "sweep", "--idle-days", "-1"}, "--idle-days: must be 0 days or more, got -1"},
    };
    for (const auto& [arguments, message] : mistakes) {
        const auto result = tarn(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments[0];
        EXPECT_NE(result.standardError.find(message), std::string::npos) << result.standardError;
        EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1) << result.standardError;
    }
    EXPECT_FALSE(fs::exists(dir_ / "x.wav"));
}

TEST_F(CommandLine, DamagedPresetsAreReportedAndNeverLost) {
    const std::string damaged = R"([{"id": "3C1A9E2B-7D4F-4A6B-8C0D-1E2F3A4B5C6D", "name": "no trim"}])";
    test::writeText(presetsFile(), damaged);
    expectFailure({"presets", "list"}, 1, presetsFile().string());

    const auto imported = tarn({"presets", "import", write("IEM.txt", kAria)});
    EXPECT_EQ(imported.exitCode, 0) << imported.standardError;
    EXPECT_NE(imported.standardError.find("kept as"), std::string::npos) << imported.standardError;
    bool keptAside = false;
    for (const auto& e : fs::directory_iterator(dir_ / "config"))
        if (e.path() != presetsFile()) keptAside = test::readText(e.path()) == damaged;
    EXPECT_TRUE(keptAside);
}

// The ranking itself is the catalogue's (tested with it): here the commands must print exactly it.
TEST_F(CommandLine, ProfilesPrintTheCatalogueAndSuggestNearNames) {
    const BundledProfileCatalog catalog(fs::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    json expected = json::array();
    for (const auto* p : catalog.search("hd 6", 3)) expected.push_back(*p);
    EXPECT_EQ(tarnJSON({"profiles", "search", "hd", "6", "--json", "--limit", "3"}), expected);
    EXPECT_EQ(tarnJSON({"profiles", "show", "oratory1990.over-ear.beyerdynamic-dt-770-pro", "--json"}),
              json(*catalog.profile("oratory1990.over-ear.beyerdynamic-dt-770-pro")));
    expectFailure({"profiles", "show", "dt770"}, 1, "beyerdynamic-dt-770");
    EXPECT_EQ(tarnJSON({"profiles", "brands", "--json"}).get<std::vector<std::string>>(), catalog.brands());
    expectFailure({"profiles", "models", "Clark"}, 1, "Dan Clark Audio");
    expectFailure({"profiles", "search", "hd", "--limit", "-1"}, 2, "--limit");

    const auto help = tarn({"profiles", "--help"});
    for (const char* credit : {"AutoEq", "oratory1990", "crinacle", "Rtings", "MIT", "LICENSE"})
        EXPECT_NE(help.standardOutput.find(credit), std::string::npos) << credit;
    const test::ScopedEnvironment noData("TARN_DATA_DIR", (dir_ / "nowhere").string());
    expectFailure({"profiles", "search", "hd"}, 1, "nowhere");
}

// One model measured by crinacle and by oratory1990, each spelling it its own way.
TEST_F(CommandLine, ProfilesShowWhichSourceMeasuredEachProfile) {
    const std::string crinacleID = "crinacle.over-ear.beyerdynamic-dt-250-80-ohm";
    const std::string oratoryID = "oratory1990.over-ear.beyerdynamic-dt-250-80-ohm";
    const auto table = tarn({"profiles", "search", "dt", "250", "80"});
    ASSERT_EQ(table.exitCode, 0) << table.standardError;
    const auto crinacleLine = table.standardOutput.find(crinacleID), oratoryLine = table.standardOutput.find(oratoryID);
    ASSERT_NE(crinacleLine, std::string::npos) << table.standardOutput;
    ASSERT_NE(oratoryLine, std::string::npos) << table.standardOutput;
    EXPECT_LT(crinacleLine, oratoryLine);
    // Each line names its source in its own column, before the id.
    const auto lineOf = [&](std::size_t at) {
        const auto start = table.standardOutput.rfind('\n', at) + 1;
        return table.standardOutput.substr(start, table.standardOutput.find('\n', at) - start);
    };
    EXPECT_NE(lineOf(crinacleLine).find("  crinacle  "), std::string::npos) << lineOf(crinacleLine);
    EXPECT_NE(lineOf(oratoryLine).find("  oratory1990  "), std::string::npos) << lineOf(oratoryLine);

    std::vector<std::string> sources;
    for (const auto& p : tarnJSON({"profiles", "search", "dt", "250", "80", "--json"})) sources.push_back(p.at("measurementProvider"));
    EXPECT_EQ(sources, (std::vector<std::string>{"crinacle", "oratory1990"}));

    const auto shown = tarn({"profiles", "show", crinacleID});
    EXPECT_NE(shown.standardOutput.find("Measured by: crinacle"), std::string::npos) << shown.standardOutput;
    // An id with the wrong source still leads to the model.
    expectFailure({"profiles", "show", "rtings.over-ear.beyerdynamic-dt-250-80-ohm"}, 1, crinacleID);

    // Sony is measured by all three sources and is still one brand of 81 models.
    const auto brands = tarn({"profiles", "brands"}).standardOutput;
    const auto sony = brands.find("\nSony ");
    ASSERT_NE(sony, std::string::npos) << brands;
    EXPECT_EQ(brands.find("\nSony ", sony + 1), std::string::npos);
    EXPECT_EQ(brands.substr(sony + 1, brands.find('\n', sony + 1) - sony - 1), fmt::format("{:<24} {:>3}", "Sony", 81));
}

} // namespace
} // namespace tarn
