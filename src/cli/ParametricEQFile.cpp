#include "cli/ParametricEQFile.hpp"

#include <fmt/format.h>

#include "cli/Command.hpp"
#include "core/io/AutoEqParser.hpp"

namespace tarn::cli {

ImportedEQ readParametricEQFile(const std::string& file) {
    try {
        return AutoEqParser::parseParametricFile(file);
    } catch (const AutoEqParser::ReadError& e) {
        throw CommandError(exitFailure, e.what());
    } catch (const AutoEqParser::ParseError& e) {
        throw CommandError(exitFailure, fmt::format("{}: {}", file, e.what()));
    }
}

} // namespace tarn::cli
