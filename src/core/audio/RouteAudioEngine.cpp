#include "core/audio/RouteAudioEngine.hpp"

#include "core/audio/AudioRingBuffer.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

RouteAudioEngine::StartError::StartError(ProcessTapEngine::StartError capture)
    : error_(capture), description_("capture(" + capture.description() + ")") {}

RouteAudioEngine::StartError::StartError(AudioOutputRenderer::StartError render)
    : error_(render), description_("render(" + render.description() + ")") {}

std::int32_t RouteAudioEngine::StartError::status() const {
    return std::visit([](const auto& e) { return e.status(); }, error_);
}

RouteAudioEngine::RouteAudioEngine(AudioPlatform& platform, std::string bundleID, std::uint32_t processObjectID,
                                   RouteAudioFormat routeFormat, std::shared_ptr<RouteDSPChain> dspChain,
                                   std::int64_t bufferFrameCapacity,
                                   std::optional<std::uint32_t> preferredIOBufferFrames)
    : bundleID_(std::move(bundleID)),
      processObjectID_(processObjectID),
      outputDeviceID_(routeFormat.outputDeviceID),
      routeFormat_(std::move(routeFormat)),
      dspChain_(std::move(dspChain)),
      ringBuffer_(std::make_shared<AudioRingBuffer>(routeFormat_.channelCount, bufferFrameCapacity)),
      capture_(platform, processObjectID_, bundleID_, routeFormat_, ringBuffer_),
      renderer_(platform, outputDeviceID_, dspChain_, ringBuffer_, RouteDSPStage::capture) {
    capture_.setPreferredIOBufferFrames(preferredIOBufferFrames);
    renderer_.setPreferredIOBufferFrames(preferredIOBufferFrames);
}

double RouteAudioEngine::start() {
    double sampleRate = 0;
    try {
        sampleRate = capture_.start(dspStage_ == RouteDSPStage::capture ? dspChain_.get() : nullptr);
    } catch (const ProcessTapEngine::StartError& error) {
        // A tap whose UID or format could not be read is still there: remove it now.
        capture_.stop();
        throw StartError(error);
    }
    if (dspStage_ == RouteDSPStage::render && dspChain_) {
        dspChain_->rebuild(sampleRate);
        dspChain_->recomputeSafetyCeiling();
        dspChain_->resetRealtimeState();
    }
    // The renderer plays this capture and no other, however many routes this process runs.
    renderer_.setCaptureDeviceID(capture_.aggregateDeviceID());
    try {
        renderer_.start(sampleRate);
    } catch (const AudioOutputRenderer::StartError& error) {
        capture_.stop();
        throw StartError(error);
    }
    return sampleRate;
}

void RouteAudioEngine::stop() {
    renderer_.stop();
    capture_.stop();
    ringBuffer_->reset();
}

std::optional<std::string> RouteAudioEngine::interruption() const {
    if (auto reason = capture_.interruption()) return "capture stopped: " + *reason;
    if (auto reason = renderer_.interruption()) return "output stopped: " + *reason;
    return std::nullopt;
}

std::optional<double> RouteAudioEngine::captureSampleRate() const {
    if (const auto& format = capture_.captureFormat()) return format->sampleRate;
    return std::nullopt;
}

std::optional<std::int64_t> RouteAudioEngine::captureChannelCount() const {
    if (const auto& format = capture_.captureFormat()) return std::int64_t(format->channelCount);
    return std::nullopt;
}

} // namespace tarn
