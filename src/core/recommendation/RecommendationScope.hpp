#pragma once

#include <optional>
#include <string_view>

namespace tarn {

// What AI Tune shapes the bands for: the song playing now, or the listener's standing taste.
enum class RecommendationScope { song, taste };

// Raw values "song", "taste".
std::string_view toString(RecommendationScope scope);
std::optional<RecommendationScope> recommendationScopeFromString(std::string_view raw);

} // namespace tarn
