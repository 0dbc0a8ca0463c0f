#include "cli/ParametricEQFile.hpp"

#include <cstdio>

#include <fmt/format.h>

#include "cli/Command.hpp"

namespace tarn::cli {

ParametricEQFile readParametricEQFile(const std::string& file) {
    ParametricEQFile result;
    try {
        result.text = AutoEqParser::readFileText(file);
        result.parsed = AutoEqParser::parseFileText(result.text, file);
    } catch (const AutoEqParser::ReadError& e) {
        throw CommandError(exitFailure, e.what());
    } catch (const AutoEqParser::ParseError& e) {
        throw CommandError(exitFailure, e.what());
    }
    const auto& parsed = result.parsed;
    for (const auto& skipped : parsed.skippedLines)
        fmt::print(stderr, "tarn: warning: {}:{}: skipped: {}\n", file, skipped.lineNumber, skipped.reason);
    if (parsed.skippedLineCount > parsed.skippedLines.size())
        fmt::print(stderr, "tarn: warning: {}: {} more lines skipped\n", file,
                   parsed.skippedLineCount - parsed.skippedLines.size());
    return result;
}

} // namespace tarn::cli
