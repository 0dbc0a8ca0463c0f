#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "core/audio/AudioPlatform.hpp"
#include "core/audio/AudioStreamFormat.hpp"
#include "core/audio/CaptureKernel.hpp"
#include "core/audio/RouteAudioFormat.hpp"

namespace tarn {

class AnalysisTap;
class AudioRingBuffer;
class RouteDSPChain;

// Captures one application's audio into its route's ring buffer: a private tap on the
// application (which silences it at its normal output), a private aggregate device holding only
// that tap, and an I/O procedure on it that runs the capture kernel on the real-time thread.
//
// `start` and `stop` run on the control thread, never concurrently for one engine. Every failed
// start undoes what it created, except a tap whose UID or format could not be read: that one is
// removed by the next `stop()`. `stop()` may be called any number of times; destruction calls it,
// so a forgotten engine never leaves a callback running on freed memory.
class ProcessTapEngine {
public:
    class StartError : public std::exception {
    public:
        enum class Case {
            tapCreationFailed,
            tapUIDQueryFailed,
            tapFormatQueryFailed,
            aggregateCreationFailed,
            ioProcCreationFailed,
            deviceStartFailed,
        };

        StartError(Case errorCase, std::int32_t status);
        Case errorCase() const { return case_; }
        std::int32_t status() const { return status_; }
        // "<case>(<status in words>)", as AudioPlatform::statusDescription reads it:
        // "tapCreationFailed(-13: Permission denied)", "tapFormatQueryFailed(1718449215 'fmt?')".
        const char* what() const noexcept override { return description_.c_str(); }
        const std::string& description() const { return description_; }

        static const char* name(Case errorCase);

    private:
        Case case_;
        std::int32_t status_;
        std::string description_;
    };

    ProcessTapEngine(AudioPlatform& platform, std::uint32_t processObjectID, std::string bundleID,
                     RouteAudioFormat routeFormat, std::shared_ptr<AudioRingBuffer> ringBuffer);
    ~ProcessTapEngine();
    ProcessTapEngine(const ProcessTapEngine&) = delete;
    ProcessTapEngine& operator=(const ProcessTapEngine&) = delete;

    // Starts capture and returns the capture sample rate. A chain, when given, is rebuilt at that
    // rate before the first block and then runs on every block. Already running: returns the
    // known rate (48000 when none is known) and creates nothing.
    double start(RouteDSPChain* dspChain);
    void stop();

    std::uint32_t processObjectID() const { return processObjectID_; }
    const std::string& bundleID() const { return bundleID_; }
    const RouteAudioFormat& routeFormat() const { return routeFormat_; }
    std::uint32_t aggregateDeviceID() const { return aggregateDeviceID_; }
    std::uint32_t tapID() const { return tapID_; }
    AudioPlatform::IOProcHandle ioProcID() const { return ioProcID_; }
    bool isRunning() const { return isRunning_; }
    // The tap's format from the last successful start; kept after stop.
    const std::optional<AudioStreamFormat>& captureFormat() const { return captureFormat_; }
    // Why a running capture stopped by itself (the platform's reason), or none.
    std::optional<std::string> interruption() const;
    // Samples of the interleave scratch block; 0 when none is allocated.
    std::int64_t scratchSampleCount() const { return scratchSamples_; }

    // Takes effect at the next start (the callback keeps the tap it started with).
    const std::shared_ptr<AnalysisTap>& analysisTap() const { return analysisTap_; }
    void setAnalysisTap(std::shared_ptr<AnalysisTap> tap) { analysisTap_ = std::move(tap); }
    std::optional<std::uint32_t> preferredIOBufferFrames() const { return preferredIOBufferFrames_; }
    void setPreferredIOBufferFrames(std::optional<std::uint32_t> frames) { preferredIOBufferFrames_ = frames; }

private:
    void freeScratch();

    AudioPlatform& platform_;
    std::uint32_t processObjectID_;
    std::string bundleID_;
    RouteAudioFormat routeFormat_;
    std::shared_ptr<AudioRingBuffer> ringBuffer_;
    std::shared_ptr<AnalysisTap> analysisTap_;
    std::optional<std::uint32_t> preferredIOBufferFrames_;
    std::optional<AudioStreamFormat> captureFormat_;
    std::uint32_t aggregateDeviceID_ = 0;
    std::uint32_t tapID_ = 0;
    AudioPlatform::IOProcHandle ioProcID_ = 0;
    bool isRunning_ = false;
    std::unique_ptr<float[]> scratch_;
    std::int64_t scratchSamples_ = 0;
    // What the running callback uses; its address is the I/O procedure's context.
    CaptureKernel kernel_;
    std::shared_ptr<AnalysisTap> runningAnalysisTap_;
};

} // namespace tarn
