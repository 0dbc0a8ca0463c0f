#include "core/audio/ProcessTapEngine.hpp"

#include <cstdio>
#include <cstdlib>

#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

// ---- StartError --------------------------------------------------------------------------------

const char* ProcessTapEngine::StartError::name(Case errorCase) {
    switch (errorCase) {
    case Case::tapCreationFailed: return "tapCreationFailed";
    case Case::tapUIDQueryFailed: return "tapUIDQueryFailed";
    case Case::tapFormatQueryFailed: return "tapFormatQueryFailed";
    case Case::aggregateCreationFailed: return "aggregateCreationFailed";
    case Case::ioProcCreationFailed: return "ioProcCreationFailed";
    case Case::deviceStartFailed: return "deviceStartFailed";
    }
    return "?";
}

ProcessTapEngine::StartError::StartError(Case errorCase, std::int32_t status)
    : case_(errorCase),
      status_(status),
      description_(std::string(name(errorCase)) + "(" + AudioPlatform::statusDescription(status) + ")") {}

// ---- engine ------------------------------------------------------------------------------------

ProcessTapEngine::ProcessTapEngine(AudioPlatform& platform, std::uint32_t processObjectID, std::string bundleID,
                                   RouteAudioFormat routeFormat, std::shared_ptr<AudioRingBuffer> ringBuffer)
    : platform_(platform),
      processObjectID_(processObjectID),
      bundleID_(std::move(bundleID)),
      routeFormat_(std::move(routeFormat)),
      ringBuffer_(std::move(ringBuffer)) {}

ProcessTapEngine::~ProcessTapEngine() { stop(); }

void ProcessTapEngine::freeScratch() {
    scratch_.reset();
    scratchSamples_ = 0;
    kernel_ = CaptureKernel{};
    runningAnalysisTap_.reset();
}

double ProcessTapEngine::start(RouteDSPChain* dspChain) {
    using Case = StartError::Case;
    if (isRunning_) return captureFormat_ ? captureFormat_->sampleRate : 48000.0;

    AudioPlatform::TapDescription description;
    description.processes = {processObjectID_};
    // Without a stream there is no layout to keep: mix down to stereo.
    description.isStereoMixdown =
        routeFormat_.captureMode == RouteCaptureMode::stereoFallback || !routeFormat_.streamIndex.has_value();
    if (!description.isStereoMixdown) {
        description.deviceUID = routeFormat_.outputDeviceUID;
        description.streamIndex = *routeFormat_.streamIndex;
    }
    description.name = "Tarn Tap " + bundleID_;
    description.isPrivate = true;
    description.isMuted = true;

    AudioPlatform::ObjectID tap = 0;
    if (auto status = platform_.createProcessTap(description, tap)) throw StartError(Case::tapCreationFailed, status);
    tapID_ = tap;

    // A failure of the next two reads leaves the tap for the next stop() to remove.
    std::string uid;
    if (auto status = platform_.tapUID(tapID_, uid)) throw StartError(Case::tapUIDQueryFailed, status);
    AudioStreamFormat format;
    if (auto status = platform_.tapFormat(tapID_, format)) throw StartError(Case::tapFormatQueryFailed, status);
    captureFormat_ = format;

    if (dspChain) {
        // Filters designed for the real rate before the first block arrives.
        dspChain->rebuild(format.sampleRate);
        dspChain->recomputeSafetyCeiling();
        dspChain->resetRealtimeState();
    }

    AudioPlatform::AggregateDeviceDescription aggregate;
    aggregate.uid = "com.tarn.aggregate." + uid;
    aggregate.name = "Tarn Capture " + bundleID_;
    aggregate.isPrivate = true;
    aggregate.isStacked = false;
    aggregate.taps = {{uid, true}};
    AudioPlatform::ObjectID device = 0;
    if (auto status = platform_.createAggregateDevice(aggregate, device)) {
        stop();
        throw StartError(Case::aggregateCreationFailed, status);
    }
    aggregateDeviceID_ = device;

    if (preferredIOBufferFrames_) IOBufferPolicy::apply(*preferredIOBufferFrames_, aggregateDeviceID_, platform_);

    std::int64_t samples = 0;
    if (__builtin_mul_overflow(ringBuffer_->channelCount(), CaptureKernel::maxChunkFrames, &samples)) {
        std::fprintf(stderr, "ProcessTapEngine: scratch size overflows\n");
        std::abort();
    }
    scratch_ = std::make_unique<float[]>(std::size_t(samples)); // zero-filled
    scratchSamples_ = samples;
    runningAnalysisTap_ = analysisTap_;
    kernel_ = CaptureKernel{ringBuffer_.get(), scratch_.get(), scratchSamples_, dspChain, runningAnalysisTap_.get()};

    AudioPlatform::IOProcHandle handle = 0;
    const auto procStatus = platform_.createIOProc(aggregateDeviceID_, &CaptureKernel::ioProc, &kernel_, handle);
    if (procStatus != AudioPlatform::noError || handle == 0) {
        stop();
        throw StartError(Case::ioProcCreationFailed, procStatus);
    }
    ioProcID_ = handle;

    if (auto status = platform_.startDevice(aggregateDeviceID_, ioProcID_)) {
        stop(); // not running yet: undoes what exists, newest first
        throw StartError(Case::deviceStartFailed, status);
    }

    isRunning_ = true;
    return captureFormat_->sampleRate;
}

std::optional<std::string> ProcessTapEngine::interruption() const {
    if (!isRunning_ || ioProcID_ == 0) return std::nullopt;
    return platform_.ioProcFailure(ioProcID_);
}

void ProcessTapEngine::stop() {
    if (isRunning_) {
        // Stopping returns only once the callback is out, so the scratch can go afterwards.
        platform_.stopDevice(aggregateDeviceID_, ioProcID_);
    }
    if (ioProcID_ != 0 && aggregateDeviceID_ != 0) platform_.destroyIOProc(aggregateDeviceID_, ioProcID_);
    ioProcID_ = 0;
    if (aggregateDeviceID_ != 0) platform_.destroyAggregateDevice(aggregateDeviceID_);
    aggregateDeviceID_ = 0;
    if (tapID_ != 0) platform_.destroyProcessTap(tapID_);
    tapID_ = 0;
    freeScratch();
    isRunning_ = false;
}

} // namespace tarn
