#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

// A song's lyrics, synchronised (LRC: "[01:23.45]a line") or plain. LRC offsets ("[offset:+250]",
// milliseconds, positive: the lines come earlier) apply to every time; lines with several stamps
// ("[00:10.00][01:10.00]chorus") appear at each. Tags such as "[ar:…]" are left out.
struct Lyrics {
    struct Line {
        std::optional<double> seconds; // none in plain lyrics
        std::string text;
        bool operator==(const Line&) const = default;
    };
    std::vector<Line> lines; // in time order when synchronised

    // Texts longer than this are not lyrics; the rest is ignored.
    static constexpr std::size_t maxBytes = 1 << 20;

    static Lyrics parse(std::string_view text);
    bool isSynchronised() const { return !lines.empty() && lines.front().seconds.has_value(); }
    bool empty() const { return lines.empty(); }
    // The line being sung at `seconds` (the last one that has started), or none before the first.
    std::optional<std::size_t> lineAt(double seconds) const;
};

} // namespace tarn
