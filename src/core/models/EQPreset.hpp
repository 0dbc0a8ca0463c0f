#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/io/ImportedEQ.hpp"
#include "core/models/Date.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

// A user-named snapshot of a route's EQ settings. Imported parametric-EQ files become one too.
struct EQPreset {
    UUID id;
    std::string name;
    Date createdAt;
    std::vector<double> bandGains; // ten gains, band 0 = 31 Hz
    GenrePreset selectedGenre = GenrePreset::flat;
    std::optional<std::string> correctionProfileID;
    double outputTrimDb = 0.0;
    std::vector<ParametricFilterSpec> parametricFilters;
    double parametricPreampDb = 0.0;

    // Every import starts 3 dB down: imported curves often boost, and the trim keeps the first
    // listen from clipping. Deliberately fixed, not derived from the file.
    static constexpr double importedOutputTrimDb = -3.0;

    // The preset an imported parametric-EQ file becomes: a fresh id, named after the import,
    // created now, flat bands and genre, no correction profile.
    static EQPreset imported(const ImportedEQ& eq, Date createdAt = Date::now());

    bool hasParametricFilters() const { return !parametricFilters.empty(); }

    bool operator==(const EQPreset&) const = default;
};

} // namespace tarn
