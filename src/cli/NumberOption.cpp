#include "cli/NumberOption.hpp"

#include <optional>
#include <string>

#include <fmt/format.h>

#include "cli/ChainOptions.hpp"

namespace tarn::cli {
namespace {

// Whether `value` is allowed; the reason it is not otherwise.
template <typename Check>
CLI::Validator numberCheck(Check check) {
    return CLI::Validator(
        [check](std::string& text) -> std::string {
            const std::optional<double> value = ChainOptions::parseNumber(text);
            if (!value) return fmt::format("\"{}\" is not a finite number", text);
            return check(*value, text);
        },
        "");
}

} // namespace

CLI::Validator numberWithin(double min, double max, std::string_view unit) {
    return numberCheck([min, max, unit = std::string(unit)](double value, const std::string& text) -> std::string {
        if (value < min || value > max) return fmt::format("must be within {}..{}{}, got {}", min, max, unit, text);
        return "";
    });
}

CLI::Validator positiveNumber(std::string_view unit) {
    return numberCheck([unit = std::string(unit)](double value, const std::string& text) -> std::string {
        if (!(value > 0)) return fmt::format("must be above 0{}, got {}", unit, text);
        return "";
    });
}

CLI::Validator nonNegativeNumber(std::string_view unit) {
    return numberCheck([unit = std::string(unit)](double value, const std::string& text) -> std::string {
        if (value < 0) return fmt::format("must be 0{} or more, got {}", unit, text);
        return "";
    });
}

} // namespace tarn::cli
