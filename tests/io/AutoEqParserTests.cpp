#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/io/AutoEqParser.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;

ParametricFilterSpec spec(Shape shape, double f, double g, double q) { return {shape, f, g, q}; }

TEST(AutoEqParser, ReadsPreampAndFiltersInFileOrderAndSkipsWhatItCannotRead) {
    const auto eq = AutoEqParser::parseParametric(
        "# Filter 9: ON PK Fc 50 Hz Gain 1 dB Q 1\n"
        "Preamp: -6.7 dB\n"
        "Filter 1: ON LSC Fc 105 Hz Gain 12.2 dB Q 0.70\n"
        "Filter 2: ON LP Fc 1000 Hz Gain 3 dB Q 1\n"
        "garbage\n"
        "\t  filter 3: on pk fc 61 hz gain -10.1 db q 0.34  \n"
        "Filter 4: ON hs Fc 10000 Hz Gain -.5 dB Q .5 trailing words\n",
        "HD 600");
    EXPECT_EQ(eq.modelName, "HD 600");
    EXPECT_EQ(eq.preampDb, -6.7);
    ASSERT_EQ(eq.filters.size(), 3u);
    EXPECT_EQ(eq.filters[0], spec(Shape::lowShelf, 105, 12.2, 0.7));
    EXPECT_EQ(eq.filters[1], spec(Shape::peaking, 61, -10.1, 0.34));
    EXPECT_EQ(eq.filters[2], spec(Shape::highShelf, 10000, -0.5, 0.5));
}

TEST(AutoEqParser, SaysWhichLinesItSkippedAndWhy) {
    const auto result = AutoEqParser::read("Preamp: -6 dB\r\n"
                                           "Preamp: -2.5 db\r\n"
                                           "Filter 1: ON LP Fc 1000 Hz Gain 3 dB Q 1\r\n"
                                           "\r\n"
                                           "# a comment is not a skipped line\r\n"
                                           "Device: Speakers\r\n"
                                           "Filter 2: OFF PK Fc 1000 Hz Gain 3 dB Q 1\r\n"
                                           "Filter 3: ON PK Fc 1000 Hz Gain +3 dB Q 1\r\n"
                                           "Filter 4: ON PK Fc 1.2.3 Hz Gain 3 dB Q 1\r\n"
                                           "Filter 5: ON PK Fc 100 Hz Gain 3 dB Q 1\r\n",
                                           "x");
    EXPECT_EQ(result.eq.preampDb, -6.0);
    ASSERT_EQ(result.eq.filters.size(), 1u);
    using Skipped = AutoEqParser::SkippedLine;
    // Line numbers as an editor shows them: CR LF is one line break.
    const std::vector<Skipped> expected = {
        {2, "the preamp is not readable (expected \"Preamp: -6.2 dB\")"},
        {3, "filter type \"LP\" is not one of PK, LS, LSC, HS, HSC"},
        {6, "not a filter or preamp line"},
        {7, "the filter is switched off"},
        {8, "a gain is written without a plus sign"},
        {9, "frequency \"1.2.3\" is not a number"},
    };
    EXPECT_EQ(result.skippedLines, expected);
    EXPECT_EQ(result.skippedLineCount, expected.size());
}

TEST(AutoEqParser, ManySkippedLinesAreCountedAndTheFirstOnesDescribed) {
    std::string text;
    for (int i = 0; i < 150; ++i) text += "junk\n";
    text += "Filter 1: ON PK Fc 100 Hz Gain 3 dB Q 1\n";
    const auto result = AutoEqParser::read(text, "x");
    EXPECT_EQ(result.skippedLines.size(), AutoEqParser::maxDescribedSkips);
    EXPECT_EQ(result.skippedLineCount, 150u);
    EXPECT_EQ(result.skippedLines.back().lineNumber, AutoEqParser::maxDescribedSkips);
    EXPECT_TRUE(AutoEqParser::skippedLinesText(result).ends_with("; and 50 more")) << AutoEqParser::skippedLinesText(result);
}

// A line's length used to drive a recursive regular-expression match into a stack overflow.
TEST(AutoEqParser, VeryLongLinesAreSkippedWithoutCrashing) {
    const std::string filter = "Filter 1: ON PK Fc 100 Hz Gain 3 dB Q 1";
    for (const std::string& longLine : {"Filter 2: ON PK Fc " + std::string(300000, '1') + " Hz Gain 3 dB Q 1",
                                        filter + std::string(10, ' ') + "Filter " + std::string(200000, '1'),
                                        std::string(500000, 'F')}) {
        const auto result = AutoEqParser::read(filter + "\n" + longLine + "\n", "x");
        EXPECT_EQ(result.eq.filters.size(), 1u);
        ASSERT_EQ(result.skippedLines.size(), 1u);
        EXPECT_EQ(result.skippedLines[0], (AutoEqParser::SkippedLine{2, "longer than 1000 characters"}));
        EXPECT_FALSE(AutoEqParser::filterSpec(longLine).has_value());
    }
    // The limit itself: a filter line padded to exactly the limit is still read.
    std::string atLimit = filter + " ";
    atLimit += std::string(AutoEqParser::maxLineBytes - atLimit.size(), 'x');
    EXPECT_EQ(AutoEqParser::read(atLimit, "x").eq.filters.size(), 1u);
    EXPECT_THROW(AutoEqParser::read(atLimit + "x", "x"), AutoEqParser::ParseError);

    // A text with only such a line says why nothing was found.
    try {
        AutoEqParser::read(std::string(5000, 'F'), "x");
        ADD_FAILURE() << "parsed a text without filters";
    } catch (const AutoEqParser::ParseError& e) {
        EXPECT_NE(std::string(e.what()).find("line 1: longer than 1000 characters"), std::string::npos) << e.what();
    }
}

TEST(AutoEqParser, ValuesNoFilterCanBeBuiltFromFailTheTextNamingTheLine) {
    const std::string good = "Filter 1: ON PK Fc 100 Hz Gain 3 dB Q 1\n";
    const std::pair<std::string, std::string> refused[] = {
        {"Filter 2: ON PK Fc 0 Hz Gain 3 dB Q 1", "line 2: frequency 0 Hz is not above 0 Hz"},
        {"Filter 2: ON PK Fc 1000 Hz Gain 3 dB Q 0", "line 2: Q 0 is not above 0"},
        {"Filter 2: ON HS Fc 1000 Hz Gain 400 dB Q 1", "line 2: gain 400 dB is beyond ±30 dB"},
        {"Filter 2: ON HS Fc 1000 Hz Gain -30.5 dB Q 1", "line 2: gain -30.5 dB is beyond ±30 dB"},
        {"Preamp: 1e308 dB", "line 2: preamp 1e+308 dB is beyond ±30 dB"},
    };
    for (const auto& [line, message] : refused) {
        try {
            AutoEqParser::read(good + line + "\n", "x");
            ADD_FAILURE() << "accepted " << line;
        } catch (const AutoEqParser::ParseError& e) {
            EXPECT_EQ(e.errorCase(), AutoEqParser::ParseError::Case::invalidValue) << line;
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
    // The limits themselves are allowed.
    const auto edge = AutoEqParser::read("Preamp: -30 dB\nFilter 1: ON LS Fc 0.001 Hz Gain -30 dB Q 0.001\n", "x");
    EXPECT_EQ(edge.eq.preampDb, -30.0);
    EXPECT_EQ(edge.eq.filters.at(0), spec(Shape::lowShelf, 0.001, -30, 0.001));
}

// The format as first defined: this regular expression, case-insensitive, matched from the start
// of the line. Fine for short lines, which is all it is given here.
std::optional<ParametricFilterSpec> referenceFilterSpec(const std::string& line) {
    static const std::regex pattern(
        R"(^Filter\s+\d+:\s+ON\s+(\w+)\s+Fc\s+([\d.]+)\s+Hz\s+Gain\s+(-?[\d.]+)\s+dB\s+Q\s+([\d.]+))",
        std::regex::ECMAScript | std::regex::icase);
    std::smatch m;
    if (!std::regex_search(line, m, pattern)) return std::nullopt;
    const auto f = AutoEqParser::parseDecimal(m.str(2)), g = AutoEqParser::parseDecimal(m.str(3)),
               q = AutoEqParser::parseDecimal(m.str(4));
    if (!f || !g || !q) return std::nullopt;
    std::string token = m.str(1);
    for (char& c : token) c = char(std::toupper(static_cast<unsigned char>(c)));
    if (token == "PK") return spec(Shape::peaking, *f, *g, *q);
    if (token == "LS" || token == "LSC") return spec(Shape::lowShelf, *f, *g, *q);
    if (token == "HS" || token == "HSC") return spec(Shape::highShelf, *f, *g, *q);
    return std::nullopt;
}

// The hand-written scanner accepts exactly what the pattern accepted: valid lines mutated word by
// word (replaced, dropped, doubled, glued), compared with the pattern.
TEST(AutoEqParser, ScannerAcceptsExactlyWhatTheOriginalPatternAccepted) {
    const std::vector<std::string> words = {
        "Filter", "filter", "FILTER", "Filters", "1", "12", "1:", ":", "ON", "on", "On", "OFF", "ONE", "PK", "pk",
        "LSC", "ls", "HS", "HSC", "LP", "P_K", "Fc", "fc", "FC", "100", "1.5", ".5", "5.", "1.2.3", "-3", "--3", "+3",
        "-", ".", "1e3", "Hz", "hz", "Hzx", "Gain", "gain", "dB", "DB", "db", "Q", "q", "0.7", "x", "#", "\xC2\xA0"};
    const std::vector<std::string> template_ = {"Filter", "3:", "ON", "PK", "Fc", "100", "Hz", "Gain", "-3",
                                                "dB",     "Q",  "0.7"};
    std::mt19937 random(20240611);
    auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::string> parts = template_;
        for (std::size_t edits = pick(4); edits > 0; --edits) {
            const std::size_t at = pick(parts.size());
            switch (pick(4)) {
            case 0: parts[at] = words[pick(words.size())]; break;
            case 1: parts.erase(parts.begin() + std::ptrdiff_t(at)); break;
            case 2: parts.insert(parts.begin() + std::ptrdiff_t(at), words[pick(words.size())]); break;
            default: parts[at] += words[pick(words.size())]; break;
            }
            if (parts.empty()) parts.push_back("Filter");
        }
        std::string line;
        for (std::size_t i = 0; i < parts.size(); ++i)
            line += (i == 0 ? "" : (pick(5) == 0 ? "\t " : " ")) + parts[i];
        if (pick(4) == 0) line += " trailing";
        const auto expected = referenceFilterSpec(line);
        ASSERT_EQ(AutoEqParser::filterSpec(line), expected) << "line: " << line;
        accepted += expected.has_value();
    }
    // Both kinds were exercised.
    EXPECT_GT(accepted, 2000);
    EXPECT_LT(accepted, 18000);
}

TEST(AutoEqParser, RejectsLinesThePatternOrNumbersDoNotAdmit) {
    const char* rejected[] = {
        "Filter 1: OFF PK Fc 1000 Hz Gain 3 dB Q 1",     // switched off
        "Filter 1: ON PK Fc 1000 Hz Gain +3 dB Q 1",     // plus sign on the gain
        "Filter 1: ON PK Fc 1e3 Hz Gain 3 dB Q 1",       // exponent
        "Filter 1: ON PK Fc 1000 Hz Gain 3 dB 1",        // no Q
        "Filter 1: ON PK Fc 1.2.3 Hz Gain 3 dB Q 1",     // pattern admits it, the number does not
        "Filter",
    };
    for (const char* line : rejected) EXPECT_FALSE(AutoEqParser::filterSpec(line).has_value()) << line;
    for (const char* bad : {"1.2.3", ".", "inf", " 1", "1e"})
        EXPECT_FALSE(AutoEqParser::parseDecimal(bad).has_value()) << bad;
    EXPECT_EQ(AutoEqParser::parseDecimal("2e1"), 20.0);
}

TEST(AutoEqParser, NoUsableFilterFailsTheText) {
    try {
        AutoEqParser::parseParametric("Preamp: -3 dB\nFilter 1: OFF PK Fc 1000 Hz Gain 3 dB Q 1\n", "x");
        ADD_FAILURE() << "parsed a file without filters";
    } catch (const AutoEqParser::ParseError& e) {
        EXPECT_EQ(e.errorCase(), AutoEqParser::ParseError::Case::noFiltersFound);
    }
}

TEST(AutoEqParser, PreampRules) {
    const std::string filter = "Filter 1: ON PK Fc 1000 Hz Gain 3 dB Q 1\n";
    auto preamp = [&](const std::string& lines) { return AutoEqParser::parseParametric(lines + filter, "x").preampDb; };
    EXPECT_EQ(preamp("Preamp: -6 dB\nPreamp: -2.5 dB\n"), -2.5);                 // the last readable one wins
    EXPECT_EQ(preamp("Preamp: -6 dB\nPreamp: -2.5 db\n"), -6.0);                 // lower-case unit is unreadable
    EXPECT_EQ(preamp("Preamp -4 dB\n"), 0.0);                                    // no colon
    EXPECT_EQ(preamp("Preamp:\xC2\xA0-3 dB\xE3\x80\x80\n"), -3.0);               // Unicode space separators
}

TEST(AutoEqParser, EveryLineBreakEndsALine) {
    for (const char* br : {"\n", "\r", "\r\n", "\xE2\x80\xA8", "\xE2\x80\xA9"}) {
        const std::string text = std::string("Preamp: -1 dB") + br + "Filter 1: ON PK Fc 100 Hz Gain 1 dB Q 1" + br +
                                 "Filter 2: ON PK Fc 200 Hz Gain 2 dB Q 1";
        const auto eq = AutoEqParser::parseParametric(text, "x");
        EXPECT_EQ(eq.preampDb, -1.0);
        EXPECT_EQ(eq.filters.size(), 2u) << "break bytes: " << br;
    }
}

TEST(AutoEqParser, FilesAreNamedAfterTheirStemAndReadErrorsNameTheFile) {
    test::TemporaryDirectory dir;
    const auto eq = AutoEqParser::parseParametricFile(test::writeText(
        dir / "HD 650 ParametricEQ.txt", "\xEF\xBB\xBFPreamp: -6.3 dB\r\nFilter 1: ON PK Fc 20 Hz Gain 6 dB Q 0.5\r\n"));
    EXPECT_EQ(eq.modelName, "HD 650 ParametricEQ");
    EXPECT_EQ(eq.preampDb, -6.3);

    for (const auto& p : {dir / "missing.txt", dir.path(),
                          test::writeText(dir / "latin1.txt", "Filter 1: ON PK Fc 100 Hz Gain 1 dB Q 1 \xE9\n"),
                          test::writeText(dir / "blank lines.txt", std::string(AutoEqParser::maxTextBytes + 1, '\n')),
                          std::filesystem::path("/dev/zero")}) {
        try {
            AutoEqParser::parseParametricFile(p);
            ADD_FAILURE() << "read " << p;
        } catch (const AutoEqParser::ReadError& e) {
            EXPECT_NE(std::string(e.what()).find(p.string()), std::string::npos) << e.what();
        }
    }
    // A damaged value names the file and the line.
    try {
        AutoEqParser::readFile(test::writeText(dir / "zero.txt", "Filter 1: ON PK Fc 0 Hz Gain 1 dB Q 1\n"));
        ADD_FAILURE() << "read a 0 Hz filter";
    } catch (const AutoEqParser::ParseError& e) {
        EXPECT_EQ(std::string(e.what()), (dir / "zero.txt").string() + ": line 1: frequency 0 Hz is not above 0 Hz");
    }
}

} // namespace
} // namespace tarn
