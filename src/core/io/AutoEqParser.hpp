#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/io/ImportedEQ.hpp"

namespace tarn {

// Reads the parametric-EQ line format that headphone-measurement projects publish
// ("Preamp: -6.7 dB", "Filter 1: ON PK Fc 105 Hz Gain 12.2 dB Q 0.70"). Pure functions of the
// text. A line it cannot use is skipped and reported with the reason; a value that would make
// an unstable or absurd filter (a frequency or Q not above 0, a gain or preamp beyond ±30 dB)
// fails the whole text, naming the line, since dropping that one filter would change the sound
// without the user knowing.
//
// Every step is linear in the text: lines are scanned by hand, one character at a time, with
// no recursion and no backtracking, so no line can make the parser slow or exhaust its stack.
class AutoEqParser {
public:
    AutoEqParser() = delete;

    // A parametric EQ is a few kilobytes; these bound what anyone can make the parser read.
    static constexpr std::size_t maxTextBytes = std::size_t(1) << 20;
    // Longer lines are skipped unread (EqualizerAPO's GraphicEQ lines, for instance).
    static constexpr std::size_t maxLineBytes = 1000;
    // Skipped lines beyond this many are counted but not described one by one.
    static constexpr std::size_t maxDescribedSkips = 100;

    class ParseError : public std::runtime_error {
    public:
        enum class Case {
            noFiltersFound,   // no line held a usable filter
            invalidValue,     // a filter or the preamp holds a value no filter can be built from
            tooLarge,         // the text is larger than maxTextBytes
        };
        ParseError(Case c, const std::string& message);
        Case errorCase() const { return case_; }

    private:
        Case case_;
    };

    // Thrown by the file readers when the file cannot be read as UTF-8 text or is too large;
    // the message names the file.
    class ReadError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    struct SkippedLine {
        std::size_t lineNumber = 0;   // from 1; CR LF counts as one line break
        std::string reason;

        bool operator==(const SkippedLine&) const = default;
    };

    struct Result {
        ImportedEQ eq;
        // The first maxDescribedSkips lines that were neither blank, comments nor used.
        std::vector<SkippedLine> skippedLines;
        std::size_t skippedLineCount = 0;   // all of them
    };

    static Result read(std::string_view text, std::string modelName);
    // Reads the file as UTF-8 (a leading byte-order mark is dropped) and parses it; the model
    // name is the file name without its extension. Errors of the text (ParseError) keep their
    // case; their message then starts with the file's name.
    static Result readFile(const std::filesystem::path& path);
    // The file's text as readFile parses it (size-checked, UTF-8, without a byte-order mark);
    // ReadError otherwise.
    static std::string readFileText(const std::filesystem::path& path);
    // Parses the text read from `path`, naming the file in ParseError's message.
    static Result parseFileText(std::string_view text, const std::filesystem::path& path);

    static ImportedEQ parseParametric(std::string_view text, std::string modelName) {
        return read(text, std::move(modelName)).eq;
    }
    static ImportedEQ parseParametricFile(const std::filesystem::path& path) { return readFile(path).eq; }

    // One trimmed line; nothing when it is not an acceptable filter line. The values are as
    // read: read() is what refuses out-of-range ones.
    static std::optional<ParametricFilterSpec> filterSpec(std::string_view line);

    // The decimal number syntax the format uses: optional sign, digits with at most one point,
    // optional exponent; the whole text must be the number ("1.2.3", "", "inf" are rejected).
    static std::optional<double> parseDecimal(std::string_view text);

    // "line 3: …; line 7: …" for messages, with "and N more" past the described ones.
    static std::string skippedLinesText(const Result& result);
};

} // namespace tarn
