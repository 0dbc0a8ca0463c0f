#include "cli/ParametricFilterTable.hpp"

#include <fmt/format.h>

namespace tarn::cli {

std::string formatDb(double db) {
    if (db == 0.0) return "0 dB";
    return fmt::format("{}{} dB", db > 0 ? "+" : "", db);
}

std::string parametricFilterTable(const std::vector<ParametricFilterSpec>& filters) {
    std::string out;
    for (std::size_t i = 0; i < filters.size(); ++i) {
        const auto& f = filters[i];
        out += fmt::format("  {:>2}  {:<9}  {:>8} Hz  {:>10}  Q {}\n", i + 1, toString(f.shape), f.frequencyHz,
                           formatDb(f.gainDb), f.q);
    }
    return out;
}

} // namespace tarn::cli
