#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/models/Date.hpp"

namespace tarn {

// What AI Tune learnt about one song: its band-prominence profile, the curve it settled on and
// the per-second band timeline, merged over every play.
struct SongMemory {
    static constexpr std::int8_t noDataSentinel = -128;
    static constexpr int bandCount = 10;

    std::vector<double> profileDb;  // ten values within SongMemoryStore::profileRange
    std::vector<double> curveDb;    // ten values
    // Ten signed bytes per second, each a level in steps of SongMemoryStore::quantizationStepDb;
    // noDataSentinel marks a band without data in that second.
    std::optional<std::vector<std::int8_t>> timeline;
    std::optional<std::string> genre;
    int playCount = 0;
    Date lastPlayedAt;
    std::optional<double> expectedDurationSeconds;

    // Whole seconds the timeline holds.
    int timelineSeconds() const;
    // The ten levels of one second in dB (NaN for a band without data), or none outside the timeline.
    std::optional<std::array<double, bandCount>> timelineSlice(int second) const;
    // The part of the expected duration the timeline covers, at most 1. A track longer than the
    // timeline can hold counts as covered once the timeline is full. None without a usable
    // expected duration.
    std::optional<double> coverageFraction() const;
    bool isSufficientlyCovered() const;

    // The analyser's per-second timeline (absent slots have no data) quantised into bytes,
    // cut to SongMemoryStore::maxTimelineSeconds.
    static std::vector<std::int8_t> quantizedTimeline(
        const std::vector<std::optional<std::array<double, bandCount>>>& seconds);

    bool operator==(const SongMemory&) const = default;
};

} // namespace tarn
