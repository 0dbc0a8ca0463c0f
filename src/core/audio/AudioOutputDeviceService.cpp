#include "core/audio/AudioOutputDeviceService.hpp"

#include "core/audio/OutputDeviceLookup.hpp"

namespace tarn {

AudioOutputDeviceService::AudioOutputDeviceService(AudioPlatform& platform, MainQueue& mainQueue)
    : platform_(platform), mainQueue_(mainQueue), self_(std::make_shared<AudioOutputDeviceService*>(this)) {}

AudioOutputDeviceService::~AudioOutputDeviceService() {
    if (listenerInstalled_) platform_.removeListener(token_);
    self_.reset();
}

void AudioOutputDeviceService::start() {
    if (!listenerInstalled_) {
        AudioPlatform::ListenerToken token = 0;
        // Platform thread: only hop to the main queue. A burst of notifications costs one read,
        // because a refresh already posted absorbs the ones behind it.
        auto listener = [&queue = mainQueue_, weak = std::weak_ptr<AudioOutputDeviceService*>(self_)] {
            queue.async([weak] {
                auto self = weak.lock();
                if (!self || (*self)->refreshPosted_) return;
                (*self)->refreshPosted_ = true;
                (*self)->mainQueue_.async([weak] {
                    if (auto again = weak.lock()) {
                        (*again)->refreshPosted_ = false;
                        (*again)->refresh();
                    }
                });
            });
        };
        if (platform_.addDeviceListListener(listener, token) == AudioPlatform::noError) {
            token_ = token;
            listenerInstalled_ = true;
        }
    }
    refresh();
}

void AudioOutputDeviceService::refresh() {
    auto fresh = OutputDeviceLookup(platform_).outputDevices();
    if (fresh == entries_) return;
    entries_ = std::move(fresh);
    if (onChange) onChange();
}

const OutputDeviceInfo* AudioOutputDeviceService::defaultDevice() const {
    for (const auto& device : entries_)
        if (device.isDefault) return &device;
    return nullptr;
}

} // namespace tarn
