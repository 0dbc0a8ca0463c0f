#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/MainQueue.hpp"
#include "core/audio/OutputDeviceInfo.hpp"

namespace tarn {

// The output devices for the route picker, with the default marked, kept current: the
// platform's device notifications (devices added or removed, streams changed, default changed)
// are forwarded to the main queue, where the list is read again.
//
// Control thread only, including construction and destruction; destruction removes the listener
// and makes refreshes already posted do nothing.
class AudioOutputDeviceService {
public:
    AudioOutputDeviceService(AudioPlatform& platform, MainQueue& mainQueue);
    ~AudioOutputDeviceService();
    AudioOutputDeviceService(const AudioOutputDeviceService&) = delete;
    AudioOutputDeviceService& operator=(const AudioOutputDeviceService&) = delete;

    // Installs the listener once (a failed installation is retried by the next call), then
    // refreshes at once.
    void start();
    // Reads the list now; calls `onChange` when it differs from the previous one.
    void refresh();

    const std::vector<OutputDeviceInfo>& entries() const { return entries_; }
    // The default device, when there is one.
    const OutputDeviceInfo* defaultDevice() const;
    // Called on the control thread after `entries` changed.
    std::function<void()> onChange;

private:
    AudioPlatform& platform_;
    MainQueue& mainQueue_;
    std::vector<OutputDeviceInfo> entries_;
    bool listenerInstalled_ = false;
    AudioPlatform::ListenerToken token_ = 0;
    bool refreshPosted_ = false;
    std::shared_ptr<AudioOutputDeviceService*> self_;
};

} // namespace tarn
