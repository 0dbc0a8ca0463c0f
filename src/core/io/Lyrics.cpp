#include "core/io/Lyrics.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace tarn {

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

// "mm:ss", "mm:ss.xx" or "mm:ss:xx" inside the brackets; none for anything else (a tag).
std::optional<double> stamp(std::string_view inside) {
    const auto colon = inside.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    const std::string_view minutes = inside.substr(0, colon);
    if (!std::all_of(minutes.begin(), minutes.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
        return std::nullopt;
    std::string rest(inside.substr(colon + 1));
    std::replace(rest.begin(), rest.end(), ':', '.');
    if (rest.empty() || !std::isdigit(static_cast<unsigned char>(rest.front()))) return std::nullopt;
    char* end = nullptr;
    const double seconds = std::strtod(rest.c_str(), &end);
    if (end != rest.c_str() + rest.size() || seconds >= 60.0) return std::nullopt;
    return std::stod(std::string(minutes)) * 60.0 + seconds;
}

} // namespace

Lyrics Lyrics::parse(std::string_view text) {
    if (text.size() > maxBytes) text = text.substr(0, maxBytes);
    Lyrics lyrics;
    std::vector<Line> timed, plain;
    double offsetSeconds = 0;
    while (!text.empty()) {
        const auto newline = text.find('\n');
        std::string_view line = trim(text.substr(0, newline));
        text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
        std::vector<double> times;
        bool isTag = false;
        while (line.size() > 2 && line.front() == '[') {
            const auto close = line.find(']');
            if (close == std::string_view::npos) break;
            const std::string_view inside = line.substr(1, close - 1);
            if (auto t = stamp(inside)) times.push_back(*t);
            else {
                isTag = true;
                if (inside.rfind("offset:", 0) == 0) offsetSeconds = std::atof(std::string(inside.substr(7)).c_str()) / 1000.0;
            }
            line = trim(line.substr(close + 1));
        }
        if (!times.empty()) {
            for (double t : times) timed.push_back({t, std::string(line)});
        } else if (!isTag && !line.empty()) {
            plain.push_back({std::nullopt, std::string(line)});
        }
    }
    if (!timed.empty()) {
        for (auto& l : timed) l.seconds = std::max(0.0, *l.seconds - offsetSeconds);
        std::stable_sort(timed.begin(), timed.end(), [](const Line& a, const Line& b) { return *a.seconds < *b.seconds; });
        lyrics.lines = std::move(timed);
    } else {
        lyrics.lines = std::move(plain);
    }
    return lyrics;
}

std::optional<std::size_t> Lyrics::lineAt(double seconds) const {
    if (!isSynchronised()) return std::nullopt;
    std::optional<std::size_t> current;
    for (std::size_t i = 0; i < lines.size() && *lines[i].seconds <= seconds; ++i) current = i;
    return current;
}

} // namespace tarn
