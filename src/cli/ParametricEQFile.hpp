#pragma once

#include <string>

#include "core/io/ImportedEQ.hpp"

namespace tarn::cli {

// Reads and parses a parametric-EQ text file for a command; an unreadable file or one without
// any filter ends the command with exit code 1 and one line naming the file.
ImportedEQ readParametricEQFile(const std::string& file);

} // namespace tarn::cli
