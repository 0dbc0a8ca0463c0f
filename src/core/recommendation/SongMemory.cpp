#include "core/recommendation/SongMemory.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/recommendation/SongMemoryStore.hpp"

namespace tarn {

int SongMemory::timelineSeconds() const { return timeline ? int(timeline->size() / bandCount) : 0; }

std::optional<std::array<double, SongMemory::bandCount>> SongMemory::timelineSlice(int second) const {
    if (second < 0 || second >= timelineSeconds()) return std::nullopt;
    std::array<double, bandCount> levels{};
    for (int band = 0; band < bandCount; ++band) {
        const std::int8_t v = (*timeline)[std::size_t(second) * bandCount + band];
        levels[band] = v == noDataSentinel ? std::numeric_limits<double>::quiet_NaN()
                                           : v * SongMemoryStore::quantizationStepDb;
    }
    return levels;
}

std::optional<double> SongMemory::coverageFraction() const {
    if (!expectedDurationSeconds || !std::isfinite(*expectedDurationSeconds) || *expectedDurationSeconds <= 0)
        return std::nullopt;
    const double coverable = std::min(*expectedDurationSeconds, double(SongMemoryStore::maxTimelineSeconds));
    return std::min(timelineSeconds() / coverable, 1.0);
}

bool SongMemory::isSufficientlyCovered() const {
    const auto coverage = coverageFraction();
    return coverage && *coverage >= SongMemoryStore::fullPlayCoverage;
}

std::vector<std::int8_t> SongMemory::quantizedTimeline(
    const std::vector<std::optional<std::array<double, bandCount>>>& seconds) {
    const std::size_t count = std::min<std::size_t>(seconds.size(), SongMemoryStore::maxTimelineSeconds);
    std::vector<std::int8_t> bytes(count * bandCount, noDataSentinel);
    for (std::size_t s = 0; s < count; ++s) {
        if (!seconds[s]) continue;
        for (int band = 0; band < bandCount; ++band) {
            const double level = (*seconds[s])[band];
            if (!std::isfinite(level)) continue;
            const double steps = std::round(level / SongMemoryStore::quantizationStepDb);
            bytes[s * bandCount + band] = std::int8_t(std::clamp(steps, -127.0, 127.0));
        }
    }
    return bytes;
}

} // namespace tarn
