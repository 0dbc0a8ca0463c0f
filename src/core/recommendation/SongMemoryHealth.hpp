#pragma once

#include <string_view>

namespace tarn {

// broken: cannot be replayed (wrong shape, non-finite values). incomplete: well formed but its
// timeline covers too little of the song to replay without warm-up.
enum class SongMemoryHealth { healthy, incomplete, broken };

inline std::string_view toString(SongMemoryHealth health) {
    switch (health) {
    case SongMemoryHealth::healthy: return "healthy";
    case SongMemoryHealth::incomplete: return "incomplete";
    case SongMemoryHealth::broken: return "broken";
    }
    return "broken";
}

} // namespace tarn
