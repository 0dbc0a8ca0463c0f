#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace tarn {

// How many song memories a machine keeps, by how capable it is.
struct SongMemoryCapacity {
    enum class Tier { capable, recentAir, entry };

    static int entries(Tier tier); // 1000, 700, 400

    // A chip brand not beginning with "Apple " is `entry`. An Apple chip in anything but a
    // MacBook Air is `capable`; in an Air, generation M3 or later is `recentAir`, else `entry`.
    static Tier resolved(std::string_view chipBrand, std::string_view modelIdentifier);

    // Model identifiers of MacBook Airs that do not begin with "MacBookAir".
    static std::span<const std::string_view> knownAirModelIdentifiers();

    // The machine's chip brand: the first "model name" of /proc/cpuinfo ("" when absent).
    static std::string chipBrand(const std::filesystem::path& cpuinfo = "/proc/cpuinfo");
    // The machine's model identifier: /sys/class/dmi/id/product_name, trimmed ("" when absent).
    static std::string modelIdentifier(const std::filesystem::path& productName = "/sys/class/dmi/id/product_name");

    // This machine's capacity, read once.
    static int defaultMaxEntries();
};

} // namespace tarn
