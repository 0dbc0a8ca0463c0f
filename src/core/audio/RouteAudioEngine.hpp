#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "core/audio/AudioOutputRenderer.hpp"
#include "core/audio/AudioPlatform.hpp"
#include "core/audio/ProcessTapEngine.hpp"
#include "core/audio/RouteAudioFormat.hpp"
#include "core/audio/RouteDSPStage.hpp"

namespace tarn {

class AnalysisTap;
class AudioRingBuffer;
class RouteDSPChain;

// One route's whole audio path: capture of the application into a ring buffer (with the DSP
// chain running in the capture callback), and the renderer playing the ring on the route's
// device at the capture's sample rate, with no rate conversion in between. The renderer's unit
// is paired with this route's own capture device at every start, whatever other routes (or
// stream holds) the process starts and stops around it.
//
// Control thread only. A failed start leaves both sides stopped and says which side failed.
// `stop()` stops the renderer (with its fade-out), then capture, then empties the ring; it may
// be called any number of times. Destruction stops both sides in the same order.
class RouteAudioEngine {
public:
    class StartError : public std::exception {
    public:
        explicit StartError(ProcessTapEngine::StartError capture);
        explicit StartError(AudioOutputRenderer::StartError render);
        bool isCapture() const { return std::holds_alternative<ProcessTapEngine::StartError>(error_); }
        const ProcessTapEngine::StartError* captureError() const { return std::get_if<ProcessTapEngine::StartError>(&error_); }
        const AudioOutputRenderer::StartError* renderError() const { return std::get_if<AudioOutputRenderer::StartError>(&error_); }
        std::int32_t status() const;
        // "capture(<inner>)" or "render(<inner>)".
        const char* what() const noexcept override { return description_.c_str(); }
        const std::string& description() const { return description_; }

    private:
        std::variant<ProcessTapEngine::StartError, AudioOutputRenderer::StartError> error_;
        std::string description_;
    };

    // The route store passes 16384 frames and IOBufferPolicy::preferredFrames for the app.
    RouteAudioEngine(AudioPlatform& platform, std::string bundleID, std::uint32_t processObjectID,
                     RouteAudioFormat routeFormat, std::shared_ptr<RouteDSPChain> dspChain,
                     std::int64_t bufferFrameCapacity, std::optional<std::uint32_t> preferredIOBufferFrames);
    RouteAudioEngine(const RouteAudioEngine&) = delete;
    RouteAudioEngine& operator=(const RouteAudioEngine&) = delete;

    // Returns the sample rate the route runs at.
    double start();
    void stop();

    // Why a running route has stopped by itself ("capture stopped: <reason>" or "output stopped:
    // <reason>"), or none. The owner polls it and stops the route when it is set.
    std::optional<std::string> interruption() const;

    const std::string& bundleID() const { return bundleID_; }
    std::uint32_t processObjectID() const { return processObjectID_; }
    std::uint32_t outputDeviceID() const { return outputDeviceID_; }
    const RouteAudioFormat& routeFormat() const { return routeFormat_; }
    const std::shared_ptr<RouteDSPChain>& dspChain() const { return dspChain_; }
    RouteDSPStage dspStage() const { return dspStage_; }
    AudioRingBuffer& ringBuffer() const { return *ringBuffer_; }
    ProcessTapEngine& capture() { return capture_; }
    AudioOutputRenderer& renderer() { return renderer_; }

    const std::shared_ptr<AnalysisTap>& analysisTap() const { return capture_.analysisTap(); }
    void setAnalysisTap(std::shared_ptr<AnalysisTap> tap) { capture_.setAnalysisTap(std::move(tap)); }
    std::optional<double> captureSampleRate() const;
    std::optional<std::int64_t> captureChannelCount() const;

private:
    std::string bundleID_;
    std::uint32_t processObjectID_;
    std::uint32_t outputDeviceID_;
    RouteAudioFormat routeFormat_;
    std::shared_ptr<RouteDSPChain> dspChain_;
    RouteDSPStage dspStage_ = RouteDSPStage::capture;
    std::shared_ptr<AudioRingBuffer> ringBuffer_;
    ProcessTapEngine capture_;
    AudioOutputRenderer renderer_;
};

} // namespace tarn
