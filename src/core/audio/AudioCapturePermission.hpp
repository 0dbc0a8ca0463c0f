#pragma once

#include <optional>
#include <string_view>

namespace tarn {

class AudioPlatform;
class PreferencesStore;

// Whether this program may capture other applications' audio, found by a harmless probe (a
// private tap over no process at all, destroyed at once) and remembered in the preferences.
// On PipeWire the probe succeeds when the daemon lets us list nodes and create streams; it fails,
// for example, inside a sandbox without the portal.
class AudioCapturePermission {
public:
    enum class Status { granted, denied, unknown };

    static constexpr std::string_view preferencesKey = "Sorvi.permission.audioCapture.v1";
    static constexpr std::string_view probeName = "Sorvi Permission Probe";

    // The stored answer; `unknown` when none is stored or it cannot be read. Never probes.
    static Status lastKnown(const PreferencesStore& preferences);
    // Probes, stores the answer and returns it. Throws PreferencesStore::Error when the answer
    // cannot be stored.
    static Status request(AudioPlatform& platform, PreferencesStore& preferences);

    static std::string_view toString(Status status);
    static std::optional<Status> statusFromString(std::string_view raw);
};

} // namespace tarn
