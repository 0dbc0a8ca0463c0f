#include "core/io/AutoEqParser.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <vector>

#include <fmt/format.h>

namespace tarn {
namespace {

// Characters that end a line, as UTF-8 sequences: LF, VT, FF, CR, NEL, LINE SEPARATOR,
// PARAGRAPH SEPARATOR. Each one ends a line on its own, so CR LF yields an empty line.
constexpr std::array<std::string_view, 7> lineBreaks = {
    "\n", "\v", "\f", "\r", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"};

// Horizontal white space: tab and the Unicode space separators.
constexpr std::array<std::string_view, 18> spaces = {
    " ", "\t", "\xC2\xA0", "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"};

// Length of the separator from `set` that starts at `text[i]`, or 0.
template <std::size_t N>
std::size_t matchAt(std::string_view text, std::size_t i, const std::array<std::string_view, N>& set) {
    for (auto s : set)
        if (text.substr(i, s.size()) == s) return s.size();
    return 0;
}

template <std::size_t N>
std::size_t matchBefore(std::string_view text, std::size_t end, const std::array<std::string_view, N>& set) {
    for (auto s : set)
        if (s.size() <= end && text.substr(end - s.size(), s.size()) == s) return s.size();
    return 0;
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (auto n = matchAt(text, i, lineBreaks)) {
            lines.push_back(text.substr(start, i - start));
            i += n;
            start = i;
        } else {
            ++i;
        }
    }
    lines.push_back(text.substr(start));
    return lines;
}

std::string_view trim(std::string_view s) {
    while (!s.empty()) {
        auto n = matchAt(s, 0, spaces);
        if (!n) break;
        s.remove_prefix(n);
    }
    while (!s.empty()) {
        auto n = matchBefore(s, s.size(), spaces);
        if (!n) break;
        s.remove_suffix(n);
    }
    return s;
}

std::string removeAll(std::string s, std::string_view what) {
    for (auto pos = s.find(what); pos != std::string::npos; pos = s.find(what, pos)) s.erase(pos, what.size());
    return s;
}

// Compiled on first use; absent if the pattern cannot be compiled, which rejects every filter line.
const std::optional<std::regex>& filterPattern() {
    static const std::optional<std::regex> pattern = []() -> std::optional<std::regex> {
        try {
            return std::regex(R"(^Filter\s+\d+:\s+ON\s+(\w+)\s+Fc\s+([\d.]+)\s+Hz\s+Gain\s+(-?[\d.]+)\s+dB\s+Q\s+([\d.]+))",
                              std::regex::ECMAScript | std::regex::icase | std::regex::optimize);
        } catch (const std::regex_error&) {
            return std::nullopt;
        }
    }();
    return pattern;
}

std::optional<ParametricFilterSpec::Shape> shapeForToken(std::string token) {
    std::transform(token.begin(), token.end(), token.begin(), [](unsigned char c) { return std::toupper(c); });
    using Shape = ParametricFilterSpec::Shape;
    if (token == "PK") return Shape::peaking;
    if (token == "LS" || token == "LSC") return Shape::lowShelf;
    if (token == "HS" || token == "HSC") return Shape::highShelf;
    return std::nullopt;
}

bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        std::size_t n;
        std::uint32_t cp;
        if (c < 0x80) { ++i; continue; }
        if ((c & 0xE0) == 0xC0) { n = 1; cp = c & 0x1F; }
        else if ((c & 0xF0) == 0xE0) { n = 2; cp = c & 0x0F; }
        else if ((c & 0xF8) == 0xF0) { n = 3; cp = c & 0x07; }
        else return false;
        if (i + n >= s.size()) return false;
        for (std::size_t k = 1; k <= n; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if ((n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += n + 1;
    }
    return true;
}

} // namespace

AutoEqParser::ParseError::ParseError(Case c)
    : std::runtime_error("no usable filter line (expected lines like \"Filter 1: ON PK Fc 1000 Hz Gain -3.0 dB Q 1.41\")"),
      case_(c) {}

std::optional<double> AutoEqParser::parseDecimal(std::string_view text) {
    std::size_t i = 0;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t digits = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
    }
    if (digits == 0) return std::nullopt;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
        std::size_t exponentDigits = 0;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++exponentDigits;
        if (exponentDigits == 0) return std::nullopt;
    }
    if (i != text.size()) return std::nullopt;

    // from_chars takes no leading plus; the syntax was checked above.
    const std::size_t from = (text[0] == '+') ? 1 : 0;
    double value = 0.0;
    auto [end, ec] = std::from_chars(text.data() + from, text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<ParametricFilterSpec> AutoEqParser::filterSpec(std::string_view line) {
    constexpr std::string_view prefix = "filter";
    if (line.size() < prefix.size()) return std::nullopt;
    for (std::size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(line[i])) != prefix[i]) return std::nullopt;

    const auto& pattern = filterPattern();
    if (!pattern) return std::nullopt;
    std::match_results<std::string_view::const_iterator> m;
    if (!std::regex_search(line.begin(), line.end(), m, *pattern)) return std::nullopt;

    auto group = [&](int k) { return std::string_view(&*m[k].first, static_cast<std::size_t>(m[k].length())); };
    auto frequency = parseDecimal(group(2));
    auto gain = parseDecimal(group(3));
    auto q = parseDecimal(group(4));
    if (!frequency || !gain || !q) return std::nullopt;
    auto shape = shapeForToken(std::string(group(1)));
    if (!shape) return std::nullopt;

    ParametricFilterSpec spec;
    spec.shape = *shape;
    spec.frequencyHz = *frequency;
    spec.gainDb = *gain;
    spec.q = *q;
    return spec;
}

ImportedEQ AutoEqParser::parseParametric(std::string_view text, std::string modelName) {
    ImportedEQ result;
    result.modelName = std::move(modelName);
    for (auto rawLine : splitLines(text)) {
        auto line = trim(rawLine);
        if (line.empty() || line.front() == '#') continue;
        if (line.starts_with("Preamp")) {
            auto rest = removeAll(removeAll(std::string(line), "Preamp:"), "dB");
            if (auto value = parseDecimal(trim(rest))) {
                result.preampDb = *value;
                continue;
            }
        }
        if (auto spec = filterSpec(line)) result.filters.push_back(*spec);
    }
    if (result.filters.empty()) throw ParseError(ParseError::Case::noFiltersFound);
    return result;
}

ImportedEQ AutoEqParser::parseParametricFile(const std::filesystem::path& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw ReadError(fmt::format("{}: is a folder, not a text file", path.string()));
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ReadError(fmt::format("{}: cannot open for reading: {}", path.string(), std::strerror(errno)));
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) throw ReadError(fmt::format("{}: read failed", path.string()));
    if (text.starts_with("\xEF\xBB\xBF")) text.erase(0, 3);
    if (!isValidUtf8(text)) throw ReadError(fmt::format("{}: not UTF-8 text", path.string()));
    return parseParametric(text, path.stem().string());
}

} // namespace tarn
