#include "core/models/EQPreset.hpp"

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

EQPreset EQPreset::imported(std::string modelName, double preampDb, std::vector<ParametricFilterSpec> filters,
                            Date createdAt) {
    EQPreset preset;
    preset.id = UUID::random();
    preset.name = std::move(modelName);
    preset.createdAt = createdAt;
    preset.bandGains.assign(TenBandLayout::bandCount, 0.0);
    preset.selectedGenre = GenrePreset::flat;
    preset.outputTrimDb = importedOutputTrimDb;
    preset.parametricFilters = std::move(filters);
    preset.parametricPreampDb = preampDb;
    return preset;
}

} // namespace tarn
