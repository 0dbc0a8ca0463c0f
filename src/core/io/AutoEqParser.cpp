#include "core/io/AutoEqParser.hpp"

#include <array>
#include <charconv>
#include <cstdint>

#include <fmt/format.h>

#include "core/io/BoundedFileReader.hpp"

namespace tarn {
namespace {

// Horizontal white space: tab and the Unicode space separators.
constexpr std::array<std::string_view, 18> spaces = {
    " ", "\t", "\xC2\xA0", "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"};

// Length of the line break that starts at text[i], or 0. LF, VT, FF, CR, NEL, LINE SEPARATOR and
// PARAGRAPH SEPARATOR each end a line; CR LF is taken as one break so that line numbers match
// what an editor shows (the empty line between them would be skipped anyway).
std::size_t lineBreakAt(std::string_view text, std::size_t i) {
    switch (text[i]) {
    case '\r': return i + 1 < text.size() && text[i + 1] == '\n' ? 2 : 1;
    case '\n':
    case '\v':
    case '\f': return 1;
    case '\xC2': return text.substr(i, 2) == "\xC2\x85" ? 2 : 0;
    case '\xE2': return text.substr(i, 3) == "\xE2\x80\xA8" || text.substr(i, 3) == "\xE2\x80\xA9" ? 3 : 0;
    default: return 0;
    }
}

// Calls each(lineNumber, line) for every line in order, without keeping them.
template <typename Each>
void forEachLine(std::string_view text, Each&& each) {
    std::size_t start = 0, number = 1;
    for (std::size_t i = 0; i < text.size();) {
        if (const std::size_t n = lineBreakAt(text, i)) {
            each(number++, text.substr(start, i - start));
            i += n;
            start = i;
        } else {
            ++i;
        }
    }
    each(number, text.substr(start));
}

std::size_t spaceAt(std::string_view text, std::size_t i) {
    for (auto s : spaces)
        if (text.substr(i, s.size()) == s) return s.size();
    return 0;
}

std::size_t spaceBefore(std::string_view text, std::size_t end) {
    for (auto s : spaces)
        if (s.size() <= end && text.substr(end - s.size(), s.size()) == s) return s.size();
    return 0;
}

std::string_view trim(std::string_view s) {
    while (!s.empty()) {
        const auto n = spaceAt(s, 0);
        if (!n) break;
        s.remove_prefix(n);
    }
    while (!s.empty()) {
        const auto n = spaceBefore(s, s.size());
        if (!n) break;
        s.remove_suffix(n);
    }
    return s;
}

std::string removeAll(std::string s, std::string_view what) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        if (std::string_view(s).substr(i, what.size()) == what) {
            i += what.size();
        } else {
            out += s[i++];
        }
    }
    return out;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNumberChar(char c) { return isDigit(c) || c == '.'; }
bool isWordChar(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
// The line has already been split and trimmed, so only blanks and tabs separate its words.
bool isBlank(char c) { return c == ' ' || c == '\t'; }
char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

// A cursor over one line. Every element of the format is followed by something it cannot
// contain (digits by a colon, words and numbers by blanks), so taking each run whole decides
// the line in one pass.
class LineScanner {
public:
    explicit LineScanner(std::string_view line) : line_(line) {}

    // `word` (lower case) in any case.
    bool literal(std::string_view word) {
        if (line_.size() - at_ < word.size()) return false;
        for (std::size_t k = 0; k < word.size(); ++k)
            if (lower(line_[at_ + k]) != word[k]) return false;
        at_ += word.size();
        return true;
    }
    template <typename Predicate>
    std::string_view run(Predicate&& accepts) {
        const std::size_t from = at_;
        while (at_ < line_.size() && accepts(line_[at_])) ++at_;
        return line_.substr(from, at_ - from);
    }
    bool blanks() { return !run(isBlank).empty(); }
    char peek() const { return at_ < line_.size() ? line_[at_] : '\0'; }

private:
    std::string_view line_;
    std::size_t at_ = 0;
};

struct FilterScan {
    std::optional<ParametricFilterSpec> spec;
    std::string problem;   // why the line is not a filter, when spec is none
};

std::optional<ParametricFilterSpec::Shape> shapeForToken(std::string_view token) {
    std::string upper(token);
    for (char& c : upper) c = (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
    using Shape = ParametricFilterSpec::Shape;
    if (upper == "PK") return Shape::peaking;
    if (upper == "LS" || upper == "LSC") return Shape::lowShelf;
    if (upper == "HS" || upper == "HSC") return Shape::highShelf;
    return std::nullopt;
}

// The shape "Filter N: ON <type> Fc <f> Hz Gain <-g> dB Q <q>", case-insensitive, anything
// after the Q allowed; the numbers are runs of digits and points, the gain with an optional
// leading minus.
FilterScan scanFilterLine(std::string_view line) {
    auto fail = [](std::string why) { return FilterScan{std::nullopt, std::move(why)}; };
    LineScanner s(line);
    if (!s.literal("filter")) return fail("not a filter or preamp line");
    if (!s.blanks() || s.run(isDigit).empty() || !s.literal(":") || !s.blanks())
        return fail("expected \"Filter N:\" at the start of a filter line");
    if (!s.literal("on") || !s.blanks()) {
        LineScanner off(line.substr(line.find(':') + 1));
        off.blanks();
        return fail(off.literal("off") ? "the filter is switched off" : "expected ON after \"Filter N:\"");
    }
    const std::string_view token = s.run(isWordChar);
    if (token.empty() || !s.blanks()) return fail("expected a filter type after ON");
    if (!s.literal("fc") || !s.blanks()) return fail("expected Fc after the filter type");
    const std::string_view frequency = s.run(isNumberChar);
    if (frequency.empty() || !s.blanks() || !s.literal("hz") || !s.blanks())
        return fail("expected the frequency in Hz after Fc");
    if (!s.literal("gain") || !s.blanks()) return fail("expected Gain after the frequency");
    if (s.peek() == '+') return fail("a gain is written without a plus sign");
    const std::size_t minus = s.literal("-") ? 1 : 0;
    const std::string_view gainDigits = s.run(isNumberChar);
    if (gainDigits.empty() || !s.blanks() || !s.literal("db") || !s.blanks())
        return fail("expected the gain in dB after Gain");
    const std::string_view gain(gainDigits.data() - minus, gainDigits.size() + minus);
    if (!s.literal("q") || !s.blanks()) return fail("expected Q after the gain");
    const std::string_view q = s.run(isNumberChar);
    if (q.empty()) return fail("expected a number after Q");

    const auto f = AutoEqParser::parseDecimal(frequency);
    if (!f) return fail(fmt::format("frequency \"{}\" is not a number", frequency));
    const auto g = AutoEqParser::parseDecimal(gain);
    if (!g) return fail(fmt::format("gain \"{}\" is not a number", gain));
    const auto qValue = AutoEqParser::parseDecimal(q);
    if (!qValue) return fail(fmt::format("Q \"{}\" is not a number", q));
    const auto shape = shapeForToken(token);
    if (!shape) return fail(fmt::format("filter type \"{}\" is not one of PK, LS, LSC, HS, HSC", token));
    return {ParametricFilterSpec{*shape, *f, *g, *qValue}, {}};
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

AutoEqParser::ParseError::ParseError(Case c, const std::string& message) : std::runtime_error(message), case_(c) {}

std::optional<double> AutoEqParser::parseDecimal(std::string_view text) {
    std::size_t i = 0;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t digits = 0;
    while (i < text.size() && isDigit(text[i])) ++i, ++digits;
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && isDigit(text[i])) ++i, ++digits;
    }
    if (digits == 0) return std::nullopt;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
        std::size_t exponentDigits = 0;
        while (i < text.size() && isDigit(text[i])) ++i, ++exponentDigits;
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
    if (line.size() > maxLineBytes) return std::nullopt;
    return scanFilterLine(line).spec;
}

std::string AutoEqParser::skippedLinesText(const Result& result) {
    std::string text;
    for (const SkippedLine& skipped : result.skippedLines)
        text += fmt::format("{}line {}: {}", text.empty() ? "" : "; ", skipped.lineNumber, skipped.reason);
    if (result.skippedLineCount > result.skippedLines.size())
        text += fmt::format("; and {} more", result.skippedLineCount - result.skippedLines.size());
    return text;
}

AutoEqParser::Result AutoEqParser::read(std::string_view text, std::string modelName) {
    if (text.size() > maxTextBytes)
        throw ParseError(ParseError::Case::tooLarge,
                         fmt::format("the text is larger than {}, too large for a parametric EQ",
                                     BoundedFileReader::sizeText(maxTextBytes)));
    Result result;
    result.eq.modelName = std::move(modelName);
    auto skip = [&](std::size_t number, std::string reason) {
        if (result.skippedLines.size() < maxDescribedSkips) result.skippedLines.push_back({number, std::move(reason)});
        ++result.skippedLineCount;
    };
    auto refuse = [](std::size_t number, const std::string& problem) {
        throw ParseError(ParseError::Case::invalidValue, fmt::format("line {}: {}", number, problem));
    };

    forEachLine(text, [&](std::size_t number, std::string_view rawLine) {
        const std::string_view line = trim(rawLine);
        if (line.empty() || line.front() == '#') return;
        if (line.size() > maxLineBytes) return skip(number, fmt::format("longer than {} characters", maxLineBytes));
        if (line.starts_with("Preamp")) {
            const std::string rest = removeAll(removeAll(std::string(line), "Preamp:"), "dB");
            if (const auto value = parseDecimal(trim(rest))) {
                if (auto problem = ParametricFilterSpec::preampProblem(*value)) refuse(number, *problem);
                result.eq.preampDb = *value;
                return;
            }
            // Unreadable, it would fall through to the filter scan, which no "Preamp" line passes.
            return skip(number, "the preamp is not readable (expected \"Preamp: -6.2 dB\")");
        }
        FilterScan scan = scanFilterLine(line);
        if (!scan.spec) return skip(number, std::move(scan.problem));
        if (auto problem = scan.spec->valueProblem()) refuse(number, *problem);
        result.eq.filters.push_back(*scan.spec);
    });

    if (result.eq.filters.empty()) {
        std::string message =
            "no usable filter line (expected lines like \"Filter 1: ON PK Fc 1000 Hz Gain -3.0 dB Q 1.41\")";
        if (result.skippedLineCount > 0) message += "; skipped " + skippedLinesText(result);
        throw ParseError(ParseError::Case::noFiltersFound, message);
    }
    return result;
}

std::string AutoEqParser::readFileText(const std::filesystem::path& path) {
    std::string text;
    try {
        text = BoundedFileReader::read(path, maxTextBytes, "a parametric EQ file");
    } catch (const BoundedFileReader::Error& e) {
        throw ReadError(e.what());
    }
    if (text.starts_with("\xEF\xBB\xBF")) text.erase(0, 3);
    if (!isValidUtf8(text)) throw ReadError(fmt::format("{}: not UTF-8 text", path.string()));
    return text;
}

AutoEqParser::Result AutoEqParser::parseFileText(std::string_view text, const std::filesystem::path& path) {
    try {
        return read(text, path.stem().string());
    } catch (const ParseError& e) {
        throw ParseError(e.errorCase(), fmt::format("{}: {}", path.string(), e.what()));
    }
}

AutoEqParser::Result AutoEqParser::readFile(const std::filesystem::path& path) {
    return parseFileText(readFileText(path), path);
}

} // namespace tarn
