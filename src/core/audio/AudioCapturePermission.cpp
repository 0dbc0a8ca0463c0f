#include "core/audio/AudioCapturePermission.hpp"

#include <nlohmann/json.hpp>

#include "core/audio/AudioPlatform.hpp"
#include "core/io/PreferencesStore.hpp"

namespace tarn {

std::string_view AudioCapturePermission::toString(Status status) {
    switch (status) {
    case Status::granted: return "granted";
    case Status::denied: return "denied";
    case Status::unknown: return "unknown";
    }
    return "unknown";
}

std::optional<AudioCapturePermission::Status> AudioCapturePermission::statusFromString(std::string_view raw) {
    if (raw == "granted") return Status::granted;
    if (raw == "denied") return Status::denied;
    if (raw == "unknown") return Status::unknown;
    return std::nullopt;
}

AudioCapturePermission::Status AudioCapturePermission::lastKnown(const PreferencesStore& preferences) {
    try {
        const auto stored = preferences.data(preferencesKey);
        if (!stored) return Status::unknown;
        const auto value = nlohmann::json::parse(*stored, nullptr, /*allow_exceptions=*/false);
        if (!value.is_string()) return Status::unknown;
        return statusFromString(value.get<std::string>()).value_or(Status::unknown);
    } catch (const PreferencesStore::Error&) {
        return Status::unknown;
    }
}

AudioCapturePermission::Status AudioCapturePermission::request(AudioPlatform& platform, PreferencesStore& preferences) {
    AudioPlatform::TapDescription probe;
    probe.isStereoMixdown = true; // over an empty process list
    probe.name = std::string(probeName);
    probe.isPrivate = true;
    probe.isMuted = true;
    AudioPlatform::ObjectID tap = 0;
    Status status = Status::denied;
    if (platform.createProcessTap(probe, tap) == AudioPlatform::noError) {
        platform.destroyProcessTap(tap);
        status = Status::granted;
    }
    preferences.setJSON(preferencesKey, std::string(toString(status)));
    return status;
}

} // namespace tarn
