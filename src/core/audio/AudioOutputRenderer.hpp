#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/RenderKernel.hpp"
#include "core/audio/RouteDSPStage.hpp"

namespace tarn {

class AudioRingBuffer;
class RouteDSPChain;

// Plays a route's ring buffer on one output device through the platform's output unit, with
// the render kernel's fades and underrun concealment.
//
// `start` and `stop` run on the control thread. A start that fails after the unit exists stops
// itself before throwing, so no half-built unit survives. `stop()` fades out: it raises the
// fade-out request and waits `fadeOutWait` before stopping the unit. When the device runs
// cycles longer than that wait (a 2048-frame quantum lasts 43 ms at 48 kHz), it keeps waiting,
// up to `fadeOutLimit`, until the callback reports silence, so stopping never clicks. `stop()`
// may be called any number of times; destruction calls it.
class AudioOutputRenderer {
public:
    class StartError : public std::exception {
    public:
        enum class Case {
            auInstantiationFailed,
            enableIOFailed,
            setDeviceFailed,
            setRenderCallbackFailed,
            setStreamFormatFailed,
            initFailed,
            startFailed,
            auComponentNotFound, // carries no status
        };

        StartError(Case errorCase, std::int32_t status = 0);
        Case errorCase() const { return case_; }
        std::int32_t status() const { return status_; }
        // "<case>(<status in words>)" as AudioPlatform::statusDescription reads it
        // ("setDeviceFailed(-19: No such device)"), or just the name for auComponentNotFound.
        const char* what() const noexcept override { return description_.c_str(); }
        const std::string& description() const { return description_; }
        static const char* name(Case errorCase);

    private:
        Case case_;
        std::int32_t status_;
        std::string description_;
    };

    static constexpr std::uint32_t maximumFramesPerSlice = 4096;
    static constexpr std::chrono::milliseconds fadeOutWait{30};
    static constexpr std::chrono::milliseconds fadeOutLimit{250};

    AudioOutputRenderer(AudioPlatform& platform, std::uint32_t outputDeviceID, std::shared_ptr<RouteDSPChain> dspChain,
                        std::shared_ptr<AudioRingBuffer> ringBuffer, RouteDSPStage dspStage);
    ~AudioOutputRenderer();
    AudioOutputRenderer(const AudioOutputRenderer&) = delete;
    AudioOutputRenderer& operator=(const AudioOutputRenderer&) = delete;

    void start(double sampleRate);
    void stop();

    std::uint32_t outputDeviceID() const { return outputDeviceID_; }
    RouteDSPStage dspStage() const { return dspStage_; }
    bool isRunning() const { return isRunning_; }
    bool hasOutputUnit() const { return audioUnit_ != 0; }
    bool hasScratch() const { return ioScratch_ != nullptr || lastSamples_ != nullptr; }
    // Why a running output stopped by itself (the platform's reason), or none.
    std::optional<std::string> interruption() const;
    // The rate the platform runs the output's graph at, once known (see AudioPlatform).
    std::optional<double> graphRate() const;
    std::optional<std::uint32_t> preferredIOBufferFrames() const { return preferredIOBufferFrames_; }
    void setPreferredIOBufferFrames(std::optional<std::uint32_t> frames) { preferredIOBufferFrames_ = frames; }
    // The aggregate device of the capture whose ring this renderer plays, or none when another
    // producer fills the ring. Takes effect at the next start, which pairs the output unit with it
    // before initialising the unit; a pairing the platform refuses fails the start as `initFailed`,
    // since it is part of connecting the unit.
    std::optional<std::uint32_t> captureDeviceID() const { return captureDeviceID_; }
    void setCaptureDeviceID(std::optional<std::uint32_t> deviceID) { captureDeviceID_ = deviceID; }

    // The render kernel (for inspection: fade and ramp state).
    const RenderKernel& kernel() const { return kernel_; }

private:
    [[noreturn]] void failAndStop(StartError::Case errorCase, std::int32_t status);

    AudioPlatform& platform_;
    std::uint32_t outputDeviceID_;
    std::shared_ptr<RouteDSPChain> dspChain_;
    std::shared_ptr<AudioRingBuffer> ringBuffer_;
    RouteDSPStage dspStage_;
    AudioPlatform::OutputUnitHandle audioUnit_ = 0;
    bool isRunning_ = false;
    std::optional<std::uint32_t> preferredIOBufferFrames_;
    std::optional<std::uint32_t> captureDeviceID_;
    std::unique_ptr<float[]> ioScratch_;
    std::unique_ptr<float[]> lastSamples_;
    // Its address is the render callback's context.
    RenderKernel kernel_;
};

} // namespace tarn
