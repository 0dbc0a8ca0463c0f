#include "core/models/GenrePreset.hpp"

#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

namespace tarn {

namespace {

constexpr double kSqrt2 = 1.4142135623730951;

struct GenreRow {
    GenrePreset genre;
    std::string_view raw;
    std::string_view baseName;
    GenreBandVector q;
    GenreBandVector target;
    GenreBandVector lean;
};

// The non-flat Q values are the rounded 1.414 and 0.707 on purpose, not the exact √2 and 1/√2.
const std::array<GenreRow, 10> kRows = {{
    {GenrePreset::flat, "flat", "Flat",
     {kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2, kSqrt2},
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {GenrePreset::reference, "reference", "Reference",
     {0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707},
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {GenrePreset::edm, "edm", "EDM",
     {0.7, 0.7, 0.7, 1.0, 1.414, 1.414, 1.414, 1.414, 1.0, 0.7},
     {6, 5, 2, -1, -1, 0, 1, 2, 3, 4},
     {3, 2, 1, 0, 0, 0, 0, 0, 1, 1}},
    {GenrePreset::hipHop, "hipHop", "Hip-Hop",
     {0.7, 0.7, 0.85, 1.0, 1.414, 1.414, 1.0, 1.0, 1.0, 0.7},
     {6, 5, 3, 0, -1, 1, 1, 1, 2, 2},
     {3, 3, 2, 0, 0, 1, 1, 0, 0, 0}},
    {GenrePreset::rock, "rock", "Rock",
     {1.0, 1.0, 1.0, 1.0, 1.2, 1.5, 1.5, 1.2, 1.0, 1.0},
     {2, 3, 2, 1, 0, 1, 3, 4, 3, 2},
     {0, 2, 1, 0, 0, 1, 2, 2, 0, 0}},
    {GenrePreset::pop, "pop", "Pop",
     {1.414, 1.414, 1.0, 1.0, 1.0, 1.414, 1.414, 1.5, 1.414, 1.414},
     {3, 3, 1, 0, 0, 2, 3, 3, 2, 3},
     {1, 1, 0, 0, 0, 2, 2, 1, 0, 0}},
    {GenrePreset::vocal, "vocal", "Vocal",
     {1.414, 1.414, 1.0, 1.0, 2.0, 1.414, 1.414, 1.5, 1.414, 1.414},
     {-3, -2, 0, 1, 0, 4, 4, 2, 1, -1},
     {0, 0, 0, 0, 0, 3, 3, 2, 0, 0}},
    {GenrePreset::acoustic, "acoustic", "Acoustic",
     {1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0},
     {1, 2, 1, 0, 0, 1, 2, 2, 2, 1},
     {1, 1, 0, 0, 0, 1, 1, 1, 0, 0}},
    {GenrePreset::classical, "classical", "Classical",
     {0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707, 0.707},
     {0, 1, 0, 0, 0, 0, 0, 1, 1, 1},
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {GenrePreset::trap, "trap", "Trap / Phonk",
     {0.7, 0.7, 0.85, 1.2, 1.414, 1.414, 1.0, 1.0, 0.85, 0.7},
     {7, 6, 3, -1, -1, 0, 1, 1, 3, 3},
     {4, 3, 2, 0, 0, 0, 0, 0, 1, 1}},
}};

const GenreRow& row(GenrePreset genre) { return kRows[static_cast<std::size_t>(genre)]; }

} // namespace

std::string_view toString(GenrePreset genre) { return row(genre).raw; }

std::optional<GenrePreset> genrePresetFromString(std::string_view raw) {
    for (const auto& r : kRows)
        if (r.raw == raw) return r.genre;
    return std::nullopt;
}

std::string_view baseName(GenrePreset genre) { return row(genre).baseName; }

std::string displayName(GenrePreset genre) { return std::string(row(genre).baseName); }

std::string shortLabel(GenrePreset genre) {
    std::string s(row(genre).baseName);
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

const GenreBandVector& qVector(GenrePreset genre) { return row(genre).q; }
const GenreBandVector& targetGainCurve(GenrePreset genre) { return row(genre).target; }
const GenreBandVector& signatureLeanDb(GenrePreset genre) { return row(genre).lean; }

GenrePreset fromAppleMusicGenre(std::string_view name) {
    // A vector, not an initializer_list: a list's backing array would not outlive the pair built from it.
    static const std::pair<std::vector<std::string_view>, GenrePreset> table[] = {
        {{"phonk", "trap", "drill"}, GenrePreset::trap},
        {{"rap", "hip-hop", "hip hop"}, GenrePreset::hipHop},
        {{"electronic", "dance", "edm", "house", "techno"}, GenrePreset::edm},
        {{"classical", "opera"}, GenrePreset::classical},
        {{"jazz", "blues"}, GenrePreset::reference},
        {{"acoustic", "folk", "country"}, GenrePreset::acoustic},
        {{"spoken", "audiobook", "podcast"}, GenrePreset::vocal},
        {{"rock", "metal", "punk"}, GenrePreset::rock},
        {{"pop", "r&b", "soul"}, GenrePreset::pop},
    };
    std::string lowered(name);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    for (const auto& [keywords, genre] : table)
        for (auto keyword : keywords)
            if (lowered.find(keyword) != std::string::npos) return genre;
    return GenrePreset::flat;
}

} // namespace tarn
