#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "core/models/Date.hpp"
#include "core/models/GenrePreset.hpp"

namespace tarn {

// A small tally of what the listener plays, from which a genre preset is suggested once
// enough tracks have been seen. Maps are ordered by name, so ties between equal counts always
// resolve the same way: the alphabetically first name wins.
struct ListeningGenreHistory {
    // The preferences key its JSON is stored under.
    static constexpr std::string_view key = "Tarn.listeningGenreHistory.v1";

    static constexpr int suggestThreshold = 10;
    static constexpr std::size_t maxGenreEntries = 100;
    static constexpr std::size_t maxArtistEntries = 200;

    int trackCount = 0;
    std::map<std::string, int> genreCounts;
    std::map<std::string, int> artistCounts;
    std::optional<Date> lastUpdate;
    std::set<std::string> dismissedGenres;

    // Records one track. A genre that is empty after trimming changes nothing at all.
    void record(std::string_view genre, std::optional<std::string_view> artist, Date at);

    std::optional<std::string> dominantGenre() const;
    std::optional<std::string> dominantArtist() const;

    // The preset for the most-played genre once suggestThreshold tracks were recorded; none if
    // the user dismissed that genre (the runner-up is not offered instead).
    std::optional<std::pair<GenrePreset, std::string>> suggestedPreset() const;

    bool operator==(const ListeningGenreHistory&) const = default;
};

} // namespace tarn
