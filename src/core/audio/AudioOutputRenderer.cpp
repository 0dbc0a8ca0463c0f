#include "core/audio/AudioOutputRenderer.hpp"

#include <thread>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/IOBufferPolicy.hpp"

namespace tarn {

const char* AudioOutputRenderer::StartError::name(Case errorCase) {
    switch (errorCase) {
    case Case::auInstantiationFailed: return "auInstantiationFailed";
    case Case::enableIOFailed: return "enableIOFailed";
    case Case::setDeviceFailed: return "setDeviceFailed";
    case Case::setRenderCallbackFailed: return "setRenderCallbackFailed";
    case Case::setStreamFormatFailed: return "setStreamFormatFailed";
    case Case::initFailed: return "initFailed";
    case Case::startFailed: return "startFailed";
    case Case::auComponentNotFound: return "auComponentNotFound";
    }
    return "?";
}

AudioOutputRenderer::StartError::StartError(Case errorCase, std::int32_t status)
    : case_(errorCase),
      status_(status),
      description_(errorCase == Case::auComponentNotFound
                       ? std::string(name(errorCase))
                       : std::string(name(errorCase)) + "(" + AudioPlatform::statusDescription(status) + ")") {}

AudioOutputRenderer::AudioOutputRenderer(AudioPlatform& platform, std::uint32_t outputDeviceID,
                                         std::shared_ptr<RouteDSPChain> dspChain,
                                         std::shared_ptr<AudioRingBuffer> ringBuffer, RouteDSPStage dspStage)
    : platform_(platform),
      outputDeviceID_(outputDeviceID),
      dspChain_(std::move(dspChain)),
      ringBuffer_(std::move(ringBuffer)),
      dspStage_(dspStage) {}

AudioOutputRenderer::~AudioOutputRenderer() { stop(); }

void AudioOutputRenderer::failAndStop(StartError::Case errorCase, std::int32_t status) {
    stop();
    throw StartError(errorCase, status);
}

std::optional<double> AudioOutputRenderer::graphRate() const {
    return audioUnit_ ? platform_.outputUnitGraphRate(audioUnit_) : std::nullopt;
}

void AudioOutputRenderer::start(double sampleRate) {
    using Case = StartError::Case;
    if (isRunning_) return; // one unit per renderer
    if (!platform_.hasOutputUnitComponent()) throw StartError(Case::auComponentNotFound);

    AudioPlatform::OutputUnitHandle unit = 0;
    if (auto status = platform_.createOutputUnit(unit)) throw StartError(Case::auInstantiationFailed, status);
    audioUnit_ = unit;

    if (auto status = platform_.enableOutputIO(audioUnit_)) failAndStop(Case::enableIOFailed, status);
    if (auto status = platform_.setOutputUnitDevice(audioUnit_, outputDeviceID_)) failAndStop(Case::setDeviceFailed, status);
    if (preferredIOBufferFrames_) IOBufferPolicy::apply(*preferredIOBufferFrames_, outputDeviceID_, platform_);
    platform_.setMaximumFramesPerSlice(audioUnit_, maximumFramesPerSlice);

    const auto channels = ringBuffer_->channelCount();
    const AudioStreamFormat format{sampleRate, std::uint32_t(channels)};
    if (auto status = platform_.setOutputUnitFormat(audioUnit_, format)) failAndStop(Case::setStreamFormatFailed, status);

    if (dspStage_ == RouteDSPStage::render) {
        ioScratch_ = std::make_unique<float[]>(std::size_t(channels * RenderKernel::maxFrames)); // zero-filled
    }
    lastSamples_ = std::make_unique<float[]>(std::size_t(channels));
    kernel_.ringBuffer = ringBuffer_.get();
    kernel_.dspChain = dspChain_.get();
    kernel_.dspStage = dspStage_;
    kernel_.channelCount = channels;
    kernel_.ioScratch = ioScratch_.get();
    kernel_.lastSamples = lastSamples_.get();
    kernel_.prepare(sampleRate);

    if (auto status = platform_.setRenderCallback(audioUnit_, &RenderKernel::renderProc, &kernel_)) {
        failAndStop(Case::setRenderCallbackFailed, status);
    }
    if (captureDeviceID_) {
        if (auto status = platform_.setOutputUnitCapture(audioUnit_, *captureDeviceID_)) failAndStop(Case::initFailed, status);
    }
    if (auto status = platform_.initializeOutputUnit(audioUnit_)) failAndStop(Case::initFailed, status);
    if (auto status = platform_.startOutputUnit(audioUnit_)) failAndStop(Case::startFailed, status);
    isRunning_ = true;
}

std::optional<std::string> AudioOutputRenderer::interruption() const {
    if (!isRunning_ || audioUnit_ == 0) return std::nullopt;
    return platform_.outputUnitFailure(audioUnit_);
}

void AudioOutputRenderer::stop() {
    if (audioUnit_ != 0) {
        if (isRunning_) {
            // Let the render thread fade to silence before the unit stops: no click.
            kernel_.fadeOutRequested.store(true, std::memory_order_release);
            std::this_thread::sleep_for(fadeOutWait);
            const auto limit = std::chrono::steady_clock::now() + (fadeOutLimit - fadeOutWait);
            while (!kernel_.hasFadedOut.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < limit) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            platform_.stopOutputUnit(audioUnit_);
        }
        platform_.uninitializeOutputUnit(audioUnit_);
        platform_.disposeOutputUnit(audioUnit_);
        audioUnit_ = 0;
    }
    kernel_.ioScratch = nullptr;
    kernel_.lastSamples = nullptr;
    ioScratch_.reset();
    lastSamples_.reset();
    kernel_.fadeOutRequested.store(false);
    kernel_.hasFadedOut.store(false);
    isRunning_ = false;
}

} // namespace tarn
