#include "core/models/EQPreset.hpp"

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

EQPreset EQPreset::imported(const ImportedEQ& eq, Date createdAt) {
    EQPreset preset;
    preset.id = UUID::random();
    preset.name = eq.modelName;
    preset.createdAt = createdAt;
    preset.bandGains.assign(TenBandLayout::bandCount, 0.0);
    preset.selectedGenre = GenrePreset::flat;
    preset.outputTrimDb = importedOutputTrimDb;
    preset.parametricFilters = eq.filters;
    preset.parametricPreampDb = eq.preampDb;
    return preset;
}

} // namespace tarn
