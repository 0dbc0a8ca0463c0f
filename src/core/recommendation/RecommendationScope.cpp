#include "core/recommendation/RecommendationScope.hpp"

namespace tarn {

std::string_view toString(RecommendationScope scope) {
    switch (scope) {
    case RecommendationScope::song: return "song";
    case RecommendationScope::taste: return "taste";
    }
    return "song";
}

std::optional<RecommendationScope> recommendationScopeFromString(std::string_view raw) {
    if (raw == "song") return RecommendationScope::song;
    if (raw == "taste") return RecommendationScope::taste;
    return std::nullopt;
}

} // namespace tarn
