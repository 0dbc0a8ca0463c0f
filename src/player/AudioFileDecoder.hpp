#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace tarn {

// Streams an audio file (WAV, AIFF, FLAC, MP3, AAC/M4A, ALAC and whatever else FFmpeg reads) as
// interleaved 32-bit float at the file's own sample rate and channel count. Only a few thousand
// frames are held at a time, so a long file is never wholly in memory.
class AudioFileDecoder {
public:
    static constexpr int maxChannelCount = 8;

    // Every failure names the file: unreadable, not audio, no decoder, more than 8 channels,
    // damaged data met while decoding (except after some audio of a file whose header announces
    // more: that ends the audio, and shortfall() says so).
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    explicit AudioFileDecoder(const std::filesystem::path& path);
    ~AudioFileDecoder();
    AudioFileDecoder(const AudioFileDecoder&) = delete;
    AudioFileDecoder& operator=(const AudioFileDecoder&) = delete;

    const std::filesystem::path& path() const;
    int sampleRate() const;
    int channelCount() const;
    // From the container's header; absent when it does not say. Use for progress only.
    std::optional<std::int64_t> estimatedFrameCount() const;

    // Fills `interleaved` (room for maxFrames * channelCount() floats) with up to maxFrames
    // frames; returns fewer only at the end of the file, and 0 once it is over.
    int read(float* interleaved, int maxFrames);
    // The next read starts at this frame of the file (a frame past the end: at the end).
    void seek(std::int64_t frame);

    // Once read() has returned 0: a message naming the file when its audio ended clearly before
    // the length its header announces (a copy or download cut short), none otherwise. Encoder
    // padding (a few thousand frames) is not a shortfall. Formats whose length is only known
    // from their last page (Ogg) cannot tell.
    std::optional<std::string> shortfall() const;

    // The reader behind the decoder (libsndfile for WAV, AIFF, FLAC and the like, FFmpeg for
    // the rest); defined in the source file.
    struct State;

private:
    std::unique_ptr<State> state_;
    std::int64_t decodedFrames_ = 0;
    bool isOver_ = false;
    std::optional<std::string> damage_;   // the decoder's words when damaged data ended the audio
};

} // namespace tarn
