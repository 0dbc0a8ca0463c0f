#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/io/ImportedEQ.hpp"

namespace tarn {

// Reads the parametric-EQ line format that headphone-measurement projects publish
// ("Preamp: -6.7 dB", "Filter 1: ON PK Fc 105 Hz Gain 12.2 dB Q 0.70"). Pure functions of the
// text; malformed lines are dropped silently, only a text without any usable filter fails.
class AutoEqParser {
public:
    AutoEqParser() = delete;

    class ParseError : public std::runtime_error {
    public:
        enum class Case { noFiltersFound };
        explicit ParseError(Case c);
        Case errorCase() const { return case_; }

    private:
        Case case_;
    };

    // Thrown by parseParametricFile when the file cannot be read as UTF-8 text; the message
    // names the file.
    class ReadError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    static ImportedEQ parseParametric(std::string_view text, std::string modelName);

    // Reads the file as UTF-8 (a leading byte-order mark is dropped) and parses it; the model
    // name is the file name without its extension.
    static ImportedEQ parseParametricFile(const std::filesystem::path& path);

    // One trimmed line; nothing when it is not an acceptable filter line.
    static std::optional<ParametricFilterSpec> filterSpec(std::string_view line);

    // The decimal number syntax the format uses: optional sign, digits with at most one point,
    // optional exponent; the whole text must be the number ("1.2.3", "", "inf" are rejected).
    static std::optional<double> parseDecimal(std::string_view text);
};

} // namespace tarn
