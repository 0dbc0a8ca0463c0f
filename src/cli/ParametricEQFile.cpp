#include "cli/ParametricEQFile.hpp"

#include <cstdio>

#include <fmt/format.h>

#include "cli/Command.hpp"

namespace tarn::cli {

AutoEqParser::Result readParametricEQFile(const std::string& file) {
    AutoEqParser::Result result;
    try {
        result = AutoEqParser::readFile(file);
    } catch (const AutoEqParser::ReadError& e) {
        throw CommandError(exitFailure, e.what());
    } catch (const AutoEqParser::ParseError& e) {
        throw CommandError(exitFailure, e.what());
    }
    for (const auto& skipped : result.skippedLines)
        fmt::print(stderr, "tarn: warning: {}:{}: skipped: {}\n", file, skipped.lineNumber, skipped.reason);
    if (result.skippedLineCount > result.skippedLines.size())
        fmt::print(stderr, "tarn: warning: {}: {} more lines skipped\n", file,
                   result.skippedLineCount - result.skippedLines.size());
    return result;
}

} // namespace tarn::cli
