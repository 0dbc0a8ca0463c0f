#pragma once

#include <string>
#include <vector>

#include "core/dsp/ParametricFilterSpec.hpp"

namespace tarn {

// A parametric equaliser read from a text file: a preamp and the filters in file order.
// Kept apart from headphone profiles on purpose: imports stay editable, the correction slot
// holds only curated catalogue entries.
struct ImportedEQ {
    std::string modelName;   // the file name without its extension
    double preampDb = 0.0;   // the last readable "Preamp:" line, 0 when there is none
    std::vector<ParametricFilterSpec> filters;

    bool operator==(const ImportedEQ&) const = default;
};

} // namespace tarn
