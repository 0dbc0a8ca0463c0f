#include "core/profiles/SearchText.hpp"

#include <array>
#include <cstdint>

namespace tarn {

namespace {

// ASCII forms of U+00C0 … U+017F (Latin-1 Supplement letters and Latin Extended-A), lower case.
// An empty entry keeps the character as it is.
constexpr std::array<std::string_view, 0x180 - 0xC0> kLatinFolds = {
    // U+00C0
    "a", "a", "a", "a", "a", "a", "ae", "c", "e", "e", "e", "e", "i", "i", "i", "i",
    // U+00D0
    "d", "n", "o", "o", "o", "o", "o", "", "o", "u", "u", "u", "u", "y", "th", "ss",
    // U+00E0
    "a", "a", "a", "a", "a", "a", "ae", "c", "e", "e", "e", "e", "i", "i", "i", "i",
    // U+00F0
    "d", "n", "o", "o", "o", "o", "o", "", "o", "u", "u", "u", "u", "y", "th", "y",
    // U+0100
    "a", "a", "a", "a", "a", "a", "c", "c", "c", "c", "c", "c", "c", "c", "d", "d",
    // U+0110
    "d", "d", "e", "e", "e", "e", "e", "e", "e", "e", "e", "e", "g", "g", "g", "g",
    // U+0120
    "g", "g", "g", "g", "h", "h", "h", "h", "i", "i", "i", "i", "i", "i", "i", "i",
    // U+0130
    "i", "i", "ij", "ij", "j", "j", "k", "k", "k", "l", "l", "l", "l", "l", "l", "l",
    // U+0140
    "l", "l", "l", "n", "n", "n", "n", "n", "n", "n", "n", "n", "o", "o", "o", "o",
    // U+0150
    "o", "o", "oe", "oe", "r", "r", "r", "r", "r", "r", "s", "s", "s", "s", "s", "s",
    // U+0160
    "s", "s", "t", "t", "t", "t", "t", "t", "u", "u", "u", "u", "u", "u", "u", "u",
    // U+0170
    "u", "u", "u", "u", "w", "w", "y", "y", "y", "z", "z", "z", "z", "z", "z", "s",
};

constexpr std::uint32_t kMalformed = 0xFFFFFFFF;

// Decodes one UTF-8 sequence at `i`; a malformed byte comes back alone as kMalformed.
std::uint32_t nextCodePoint(std::string_view text, std::size_t& i, std::size_t& length) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    const std::size_t need = (lead >> 5) == 0x6 ? 1 : (lead >> 4) == 0xE ? 2 : (lead >> 3) == 0x1E ? 3 : 0;
    if (need == 0) {
        length = 1;
        return lead < 0x80 ? lead : kMalformed;
    }
    std::uint32_t cp = lead & (0x3F >> need);
    for (std::size_t k = 1; k <= need; ++k) {
        if (i + k >= text.size() || (byte(i + k) & 0xC0) != 0x80) {
            length = 1;
            return kMalformed;
        }
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    length = need + 1;
    return cp;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAsciiLetter(char c) { return c >= 'a' && c <= 'z'; }
// Bytes of characters outside ASCII count as letters: they are kept whole inside words.
bool isLetter(char c) { return isAsciiLetter(c) || static_cast<unsigned char>(c) >= 0x80; }

} // namespace

std::string SearchText::fold(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        std::size_t length = 1;
        const std::uint32_t cp = nextCodePoint(text, i, length);
        if (cp < 0x80) {
            out.push_back(cp >= 'A' && cp <= 'Z' ? static_cast<char>(cp - 'A' + 'a') : static_cast<char>(cp));
        } else if (cp >= 0xC0 && cp < 0x180 && !kLatinFolds[cp - 0xC0].empty()) {
            out.append(kLatinFolds[cp - 0xC0]);
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

std::vector<std::string> SearchText::tokens(std::string_view folded) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < folded.size()) {
        if (!isDigit(folded[i]) && !isLetter(folded[i])) {
            ++i;
            continue;
        }
        const bool digits = isDigit(folded[i]);
        const std::size_t start = i;
        while (i < folded.size() && (digits ? isDigit(folded[i]) : isLetter(folded[i]))) ++i;
        out.emplace_back(folded.substr(start, i - start));
    }
    return out;
}

std::string SearchText::compact(std::string_view text) {
    std::string out;
    for (const auto& token : tokens(fold(text))) out += token;
    return out;
}

} // namespace tarn
