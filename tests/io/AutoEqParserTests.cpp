#include <gtest/gtest.h>

#include "core/io/AutoEqParser.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;

ParametricFilterSpec spec(Shape shape, double f, double g, double q) { return {shape, f, g, q}; }

TEST(AutoEqParser, ReadsPreampAndFiltersInFileOrder) {
    const auto eq = AutoEqParser::parseParametric(
        "Preamp: -6.7 dB\n"
        "Filter 1: ON LSC Fc 105 Hz Gain 12.2 dB Q 0.70\n"
        "Filter 2: ON PK Fc 61 Hz Gain -10.1 dB Q 0.34\n"
        "Filter 3: ON HSC Fc 10000 Hz Gain -3 dB Q .5\n",
        "HD 600");
    EXPECT_EQ(eq.modelName, "HD 600");
    EXPECT_EQ(eq.preampDb, -6.7);
    ASSERT_EQ(eq.filters.size(), 3u);
    EXPECT_EQ(eq.filters[0], spec(Shape::lowShelf, 105, 12.2, 0.7));
    EXPECT_EQ(eq.filters[1], spec(Shape::peaking, 61, -10.1, 0.34));
    EXPECT_EQ(eq.filters[2], spec(Shape::highShelf, 10000, -3, 0.5));
}

TEST(AutoEqParser, TokensAndKeywordsIgnoreCase) {
    EXPECT_EQ(AutoEqParser::filterSpec("filter 3: on pk fc 1000 hz gain 3 db q 1"), spec(Shape::peaking, 1000, 3, 1));
    EXPECT_EQ(AutoEqParser::filterSpec("FILTER 3: ON ls FC 100 HZ GAIN 3 DB Q 1")->shape, Shape::lowShelf);
    EXPECT_EQ(AutoEqParser::filterSpec("Filter 3: ON Hs Fc 100 Hz Gain 3 dB Q 1")->shape, Shape::highShelf);
    EXPECT_EQ(AutoEqParser::filterSpec("Filter 3: ON hsc Fc 100 Hz Gain 3 dB Q 1")->shape, Shape::highShelf);
    EXPECT_EQ(AutoEqParser::filterSpec("Filter 3: ON lsc Fc 100 Hz Gain 3 dB Q 1")->shape, Shape::lowShelf);
}

TEST(AutoEqParser, RejectsLinesThePatternOrNumbersDoNotAdmit) {
    const char* rejected[] = {
        "Filter 1: OFF PK Fc 1000 Hz Gain 3 dB Q 1",     // switched off
        "Filter 1: ON LP Fc 1000 Hz Gain 3 dB Q 1",      // unknown token
        "Filter 1: ON NO Fc 1000 Hz Gain 3 dB Q 1",
        "Filter 1: ON PK Fc 1000 Hz Gain +3 dB Q 1",     // plus sign on the gain
        "Filter 1: ON PK Fc -1000 Hz Gain 3 dB Q 1",     // sign on the frequency
        "Filter 1: ON PK Fc 1e3 Hz Gain 3 dB Q 1",       // exponent
        "Filter 1: ON PK Fc 1000 Gain 3 dB Q 1",         // no Hz
        "Filter 1: ON PK Fc 1000 Hz Gain 3 Q 1",         // no dB
        "Filter 1: ON PK Fc 1000 Hz Gain 3 dB 1",        // no Q
        "Filter 1: ON PK Fc 1.2.3 Hz Gain 3 dB Q 1",     // pattern admits it, the number does not
        "Filter 1: ON PK Fc 1000 Hz Gain 3 dB Q .",
        "Filter: ON PK Fc 1000 Hz Gain 3 dB Q 1",        // no number
        "Filter 1 ON PK Fc 1000 Hz Gain 3 dB Q 1",       // no colon
        "Filters 1: ON PK Fc 1000 Hz Gain 3 dB Q 1",
        "Filter",
        "",
    };
    for (const char* line : rejected) EXPECT_FALSE(AutoEqParser::filterSpec(line).has_value()) << line;
}

TEST(AutoEqParser, ValuesAreTakenAsReadWithoutClamping) {
    EXPECT_EQ(AutoEqParser::filterSpec("Filter 10: ON PK Fc 30000 Hz Gain -40 dB Q 0.01 trailing words"),
              spec(Shape::peaking, 30000, -40, 0.01));
    EXPECT_EQ(AutoEqParser::filterSpec("Filter 1: ON PK Fc 1000. Hz Gain -.5 dB Q 2")->gainDb, -0.5);
}

TEST(AutoEqParser, SkippedLinesNeverFailTheImport) {
    const auto eq = AutoEqParser::parseParametric(
        "# a comment\n"
        "#Filter 9: ON PK Fc 50 Hz Gain 1 dB Q 1\n"
        "Filter 1: ON LP Fc 1000 Hz Gain 3 dB Q 1\n"
        "Filter 2: ON PK Fc 1000 Hz Gain +3 dB Q 1\n"
        "garbage\n"
        "\t  Filter 3: ON PK Fc 2000 Hz Gain 2 dB Q 1.41  \n",
        "x");
    ASSERT_EQ(eq.filters.size(), 1u);
    EXPECT_EQ(eq.filters[0], spec(Shape::peaking, 2000, 2, 1.41));
    EXPECT_EQ(eq.preampDb, 0.0);
}

TEST(AutoEqParser, NoUsableFilterIsTheOnlyFailure) {
    for (const char* text : {"", "Preamp: -3 dB\n", "Filter 1: OFF PK Fc 1000 Hz Gain 3 dB Q 1\n# Filter 2: ON PK Fc 1 Hz Gain 1 dB Q 1"}) {
        try {
            AutoEqParser::parseParametric(text, "x");
            ADD_FAILURE() << "parsed: " << text;
        } catch (const AutoEqParser::ParseError& e) {
            EXPECT_EQ(e.errorCase(), AutoEqParser::ParseError::Case::noFiltersFound);
            EXPECT_NE(std::string(e.what()), "");
        }
    }
}

TEST(AutoEqParser, PreampRules) {
    const std::string filter = "Filter 1: ON PK Fc 1000 Hz Gain 3 dB Q 1\n";
    auto preamp = [&](const std::string& lines) { return AutoEqParser::parseParametric(lines + filter, "x").preampDb; };
    EXPECT_EQ(preamp("Preamp: -6 dB\nPreamp: -2.5 dB\n"), -2.5);                 // the last readable one wins
    EXPECT_EQ(preamp("Preamp: -6 dB\nPreamp: -2.5 db\n"), -6.0);                 // lower-case unit is unreadable
    EXPECT_EQ(preamp("Preamp -4 dB\n"), 0.0);                                    // no colon
    EXPECT_EQ(preamp("preamp: -4 dB\n"), 0.0);                                   // exact case only
    EXPECT_EQ(preamp("   \tPreamp: -4 dB\n"), -4.0);                             // leading white space trimmed
    EXPECT_EQ(preamp("Preamp:-4dB\n"), -4.0);
    EXPECT_EQ(preamp("Preamp: +1.5 dB\n"), 1.5);
    EXPECT_EQ(preamp("Preamp: 1.2.3 dB\n"), 0.0);
    EXPECT_EQ(preamp("Preamp:\xC2\xA0-3 dB\xE3\x80\x80\n"), -3.0);               // Unicode space separators
}

TEST(AutoEqParser, EveryLineBreakEndsALine) {
    const char* breaks[] = {"\n", "\r", "\r\n", "\xE2\x80\xA8", "\xE2\x80\xA9"};
    for (const char* br : breaks) {
        const std::string text = std::string("Preamp: -1 dB") + br + "Filter 1: ON PK Fc 100 Hz Gain 1 dB Q 1" + br +
                                 "Filter 2: ON PK Fc 200 Hz Gain 2 dB Q 1";
        const auto eq = AutoEqParser::parseParametric(text, "x");
        EXPECT_EQ(eq.preampDb, -1.0);
        ASSERT_EQ(eq.filters.size(), 2u) << "break bytes: " << br;
        EXPECT_EQ(eq.filters[1].frequencyHz, 200.0);
    }
}

TEST(AutoEqParser, DecimalNumbers) {
    EXPECT_EQ(AutoEqParser::parseDecimal("105"), 105.0);
    EXPECT_EQ(AutoEqParser::parseDecimal("0.70"), 0.7);
    EXPECT_EQ(AutoEqParser::parseDecimal(".5"), 0.5);
    EXPECT_EQ(AutoEqParser::parseDecimal("-10.1"), -10.1);
    EXPECT_EQ(AutoEqParser::parseDecimal("2e1"), 20.0);
    for (const char* bad : {"1.2.3", "", ".", "-", "inf", "nan", "0x10", " 1", "1 ", "1e", "--1"})
        EXPECT_FALSE(AutoEqParser::parseDecimal(bad).has_value()) << bad;
}

class AutoEqParserFile : public ::testing::Test {
protected:
    test::TemporaryDirectory dir;
    std::filesystem::path write(const std::string& name, const std::string& bytes) { return test::writeText(dir / name, bytes); }
};

TEST_F(AutoEqParserFile, ModelNameIsTheFileStemAndAByteOrderMarkIsDropped) {
    auto p = write("Sennheiser HD 650 ParametricEQ.txt",
                   "\xEF\xBB\xBFPreamp: -6.3 dB\r\nFilter 1: ON PK Fc 20 Hz Gain 6 dB Q 0.5\r\n");
    const auto eq = AutoEqParser::parseParametricFile(p);
    EXPECT_EQ(eq.modelName, "Sennheiser HD 650 ParametricEQ");
    EXPECT_EQ(eq.preampDb, -6.3);
    EXPECT_EQ(eq.filters.size(), 1u);
}

TEST_F(AutoEqParserFile, UnreadableOrNonTextFilesNameTheFile) {
    auto expectReadError = [](const std::filesystem::path& p) {
        try {
            AutoEqParser::parseParametricFile(p);
            ADD_FAILURE() << "read " << p;
        } catch (const AutoEqParser::ReadError& e) {
            EXPECT_NE(std::string(e.what()).find(p.string()), std::string::npos) << e.what();
        }
    };
    expectReadError(dir / "missing.txt");
    expectReadError(dir.path());
    expectReadError(write("latin1.txt", "Preamp: -1 dB\nFilter 1: ON PK Fc 100 Hz Gain 1 dB Q 1 \xE9\n"));
}

} // namespace
} // namespace tarn
