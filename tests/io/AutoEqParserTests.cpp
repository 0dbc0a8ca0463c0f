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

TEST(AutoEqParser, NoUsableFilterIsTheOnlyFailure) {
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
                          test::writeText(dir / "latin1.txt", "Filter 1: ON PK Fc 100 Hz Gain 1 dB Q 1 \xE9\n")}) {
        try {
            AutoEqParser::parseParametricFile(p);
            ADD_FAILURE() << "read " << p;
        } catch (const AutoEqParser::ReadError& e) {
            EXPECT_NE(std::string(e.what()).find(p.string()), std::string::npos) << e.what();
        }
    }
}

} // namespace
} // namespace tarn
