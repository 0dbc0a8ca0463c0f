#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {

// One of ten fixed musical characters. Choosing one changes the Q shape of the bands, never
// their gains; its two curves feed AI Tune.
enum class GenrePreset { flat, reference, edm, hipHop, rock, pop, vocal, acoustic, classical, trap };

using GenreBandVector = std::array<double, 10>;

inline constexpr std::array<GenrePreset, 10> allGenrePresets = {
    GenrePreset::flat, GenrePreset::reference, GenrePreset::edm,   GenrePreset::hipHop,    GenrePreset::rock,
    GenrePreset::pop,  GenrePreset::vocal,     GenrePreset::acoustic, GenrePreset::classical, GenrePreset::trap};

// Raw value (also the id): the case name.
std::string_view toString(GenrePreset genre);
std::optional<GenrePreset> genrePresetFromString(std::string_view raw);

std::string_view baseName(GenrePreset genre);   // "Hip-Hop", "Trap / Phonk", ...
std::string displayName(GenrePreset genre);      // localised base name (English only for now)
std::string shortLabel(GenrePreset genre);       // base name upper-cased: "TRAP / PHONK"

const GenreBandVector& qVector(GenrePreset genre);
const GenreBandVector& targetGainCurve(GenrePreset genre);
const GenreBandVector& signatureLeanDb(GenrePreset genre);

// Maps a metadata genre name ("K-Pop", "Hip-Hop/Rap", ...) through the keyword table;
// the first keyword found, in table order, decides; nothing found gives flat.
GenrePreset fromAppleMusicGenre(std::string_view name);

} // namespace tarn
