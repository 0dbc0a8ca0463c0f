#pragma once

#include <string>

#include "core/io/AutoEqParser.hpp"

namespace tarn::cli {

struct ParametricEQFile {
    std::string text;   // as read (UTF-8, no byte-order mark)
    AutoEqParser::Result parsed;
};

// Reads and parses a parametric-EQ text file for a command. An unreadable file, a value no
// filter can be built from, or a file without any filter ends the command with exit code 1 and
// one line naming the file. Lines it skipped are reported on stderr, one warning per line
// ("tarn: warning: FILE:3: skipped: …"), so nothing is dropped without a word.
ParametricEQFile readParametricEQFile(const std::string& file);

} // namespace tarn::cli
