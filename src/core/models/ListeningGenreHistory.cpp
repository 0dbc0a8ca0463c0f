#include "core/models/ListeningGenreHistory.hpp"

namespace tarn {

namespace {

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view space = " \t\n\r\f\v";
    const auto first = text.find_first_not_of(space);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

// Adds one to `name`, then keeps the map within `limit` entries by dropping the least-counted
// entry other than the one just counted.
void count(std::map<std::string, int>& counts, std::string_view name, std::size_t limit) {
    auto [it, inserted] = counts.try_emplace(std::string(name), 0);
    ++it->second;
    if (counts.size() <= limit) return;
    auto smallest = counts.end();
    for (auto candidate = counts.begin(); candidate != counts.end(); ++candidate) {
        if (candidate == it) continue;
        if (smallest == counts.end() || candidate->second < smallest->second) smallest = candidate;
    }
    if (smallest != counts.end()) counts.erase(smallest);
}

std::optional<std::string> highest(const std::map<std::string, int>& counts) {
    const std::pair<const std::string, int>* best = nullptr;
    for (const auto& entry : counts)
        if (!best || entry.second > best->second) best = &entry;
    if (!best) return std::nullopt;
    return best->first;
}

} // namespace

void ListeningGenreHistory::record(std::string_view genre, std::optional<std::string_view> artist, Date at) {
    const auto genreName = trimmed(genre);
    if (genreName.empty()) return;
    ++trackCount;
    count(genreCounts, genreName, maxGenreEntries);
    if (artist) {
        const auto artistName = trimmed(*artist);
        if (!artistName.empty()) count(artistCounts, artistName, maxArtistEntries);
    }
    lastUpdate = at;
}

std::optional<std::string> ListeningGenreHistory::dominantGenre() const { return highest(genreCounts); }

std::optional<std::string> ListeningGenreHistory::dominantArtist() const { return highest(artistCounts); }

std::optional<std::pair<GenrePreset, std::string>> ListeningGenreHistory::suggestedPreset() const {
    if (trackCount < suggestThreshold) return std::nullopt;
    auto genre = dominantGenre();
    if (!genre || dismissedGenres.count(*genre)) return std::nullopt;
    return std::pair{fromAppleMusicGenre(*genre), *genre};
}

} // namespace tarn
