#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {

// A 128-bit identity. Written everywhere in the canonical 36-character upper-case form
// ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"); reading also accepts lower case.
class UUID {
public:
    UUID() = default; // the nil UUID
    explicit UUID(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    // A fresh version-4 UUID from the kernel's random source. Throws std::system_error if the
    // source fails (it does not on any supported kernel).
    static UUID random();

    // nullopt unless `text` is 32 hex digits in the 8-4-4-4-12 pattern.
    static std::optional<UUID> fromString(std::string_view text);

    std::string string() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    bool isNil() const { return *this == UUID(); }

    auto operator<=>(const UUID&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

} // namespace tarn

template <>
struct std::hash<tarn::UUID> {
    std::size_t operator()(const tarn::UUID& id) const noexcept {
        std::size_t h = 1469598103934665603ull;
        for (auto b : id.bytes()) h = (h ^ b) * 1099511628211ull;
        return h;
    }
};
