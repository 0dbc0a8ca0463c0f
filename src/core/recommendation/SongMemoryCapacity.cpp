#include "core/recommendation/SongMemoryCapacity.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <regex>

namespace tarn {

namespace {

std::string trimmed(std::string s) {
    auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
    s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
    return s;
}

// Apple-silicon Airs carry the generic "MacN,M" identifiers.
constexpr std::array<std::string_view, 6> kAirIdentifiers = {
    "Mac14,2",  // MacBook Air 13" M2
    "Mac14,15", // MacBook Air 15" M2
    "Mac15,12", // MacBook Air 13" M3
    "Mac15,13", // MacBook Air 15" M3
    "Mac16,12", // MacBook Air 13" M4
    "Mac16,13", // MacBook Air 15" M4
};

} // namespace

int SongMemoryCapacity::entries(Tier tier) {
    switch (tier) {
    case Tier::capable: return 1000;
    case Tier::recentAir: return 700;
    case Tier::entry: return 400;
    }
    return 400;
}

std::span<const std::string_view> SongMemoryCapacity::knownAirModelIdentifiers() { return kAirIdentifiers; }

SongMemoryCapacity::Tier SongMemoryCapacity::resolved(std::string_view chipBrand, std::string_view modelIdentifier) {
    if (!chipBrand.starts_with("Apple ")) return Tier::entry;
    const bool isAir = modelIdentifier.starts_with("MacBookAir") ||
                       std::find(kAirIdentifiers.begin(), kAirIdentifiers.end(), modelIdentifier) != kAirIdentifiers.end();
    if (!isAir) return Tier::capable;
    static const std::regex generationPattern("Apple M(\\d+)");
    std::match_results<std::string_view::const_iterator> match;
    if (std::regex_search(chipBrand.begin(), chipBrand.end(), match, generationPattern)) {
        const std::string digits = match[1].str();
        if (digits.size() <= 3 && std::stoi(digits) >= 3) return Tier::recentAir;
    }
    return Tier::entry;
}

std::string SongMemoryCapacity::chipBrand(const std::filesystem::path& cpuinfo) {
    std::ifstream in(cpuinfo);
    std::string line;
    while (std::getline(in, line)) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        if (trimmed(line.substr(0, colon)) == "model name") return trimmed(line.substr(colon + 1));
    }
    return {};
}

std::string SongMemoryCapacity::modelIdentifier(const std::filesystem::path& productName) {
    std::ifstream in(productName);
    std::string line;
    std::getline(in, line);
    return trimmed(line);
}

int SongMemoryCapacity::defaultMaxEntries() {
    static const int capacity = entries(resolved(chipBrand(), modelIdentifier()));
    return capacity;
}

} // namespace tarn
