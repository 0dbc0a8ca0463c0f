#pragma once

#include <string>
#include <vector>

#include "core/dsp/ParametricFilterSpec.hpp"

namespace tarn::cli {

// The human form of a list of parametric filters, one numbered line each, as `eq parse`,
// `presets` and `profiles show` print them.
std::string parametricFilterTable(const std::vector<ParametricFilterSpec>& filters);

// A decibel value with its sign: "+12.2 dB", "-3 dB", "0 dB".
std::string formatDb(double db);

} // namespace tarn::cli
