#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

// Text as a person types it to find a headphone: case and accents do not matter ("rode" finds
// "RØDE"), and the boundary between letters and digits is a word boundary ("dt770" is the
// words "dt" and "770").
struct SearchText {
    // Lower case with Latin accents removed ("Erlkönig" → "erlkonig", "Ø" → "o", "ß" → "ss").
    // Characters outside the Latin ranges are kept as they are.
    static std::string fold(std::string_view text);

    // The words of a folded text: runs of letters and runs of digits; everything else separates.
    static std::vector<std::string> tokens(std::string_view folded);

    // The words of `text` joined without separators ("HD 25-1 II" → "hd251ii"); used to compare
    // two texts that differ only in spacing and punctuation.
    static std::string compact(std::string_view text);
};

} // namespace tarn
