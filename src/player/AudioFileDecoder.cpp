#include "player/AudioFileDecoder.hpp"

#include <algorithm>
#include <mutex>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace tarn {
namespace {

std::string averror(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// FFmpeg writes its own diagnostics to stderr; every failure reaches the user through Error
// instead, with the file named, so the library stays quiet.
void silenceFFmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

template <typename T>
void convertPacked(const std::uint8_t* data, float* out, int samples, float scale, float offset = 0.0f) {
    const T* in = reinterpret_cast<const T*>(data);
    for (int i = 0; i < samples; ++i) out[i] = (static_cast<float>(in[i]) - offset) * scale;
}

template <typename T>
void convertPlanar(std::uint8_t* const* planes, int channels, int firstFrame, int frames, float* out, float scale,
                   float offset = 0.0f) {
    for (int c = 0; c < channels; ++c) {
        const T* in = reinterpret_cast<const T*>(planes[c]) + firstFrame;
        for (int i = 0; i < frames; ++i) out[i * channels + c] = (static_cast<float>(in[i]) - offset) * scale;
    }
}

} // namespace

struct AudioFileDecoder::State {
    std::filesystem::path path;
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    int streamIndex = -1;
    int sampleRate = 0;
    int channelCount = 0;
    int frameOffset = 0;        // frames of `frame` already handed out
    bool hasFrame = false;
    bool isInputDone = false;   // demuxer exhausted, decoder flushed
    bool isFinished = false;

    ~State() {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw AudioFileDecoder::Error(fmt::format("{}: {}", path.string(), what));
    }

    // Makes `frame` hold the next decoded frame; false at the end of the stream.
    bool decodeNextFrame() {
        for (;;) {
            int rc = avcodec_receive_frame(codec, frame);
            if (rc == 0) {
                if (frame->sample_rate != sampleRate || frame->ch_layout.nb_channels != channelCount)
                    fail("the audio format changes in the middle of the file");
                return true;
            }
            if (rc == AVERROR_EOF) return false;
            if (rc != AVERROR(EAGAIN)) fail(fmt::format("cannot decode: {}", averror(rc)));
            if (isInputDone) return false;

            // The decoder wants more input.
            rc = av_read_frame(format, packet);
            if (rc == AVERROR_EOF) {
                isInputDone = true;
                avcodec_send_packet(codec, nullptr);   // drain what the decoder still holds
                continue;
            }
            if (rc < 0) fail(fmt::format("cannot read: {}", averror(rc)));
            if (packet->stream_index == streamIndex) {
                rc = avcodec_send_packet(codec, packet);
                av_packet_unref(packet);
                if (rc < 0 && rc != AVERROR(EAGAIN)) fail(fmt::format("cannot decode: {}", averror(rc)));
            } else {
                av_packet_unref(packet);
            }
        }
    }

    void convert(int firstFrame, int frames, float* out) const {
        const int ch = channelCount;
        const auto fmt = static_cast<AVSampleFormat>(frame->format);
        std::uint8_t* const* planes = frame->extended_data;
        const std::size_t packedOffset = static_cast<std::size_t>(firstFrame) * ch;
        const int samples = frames * ch;
        switch (fmt) {
            case AV_SAMPLE_FMT_U8:
                return convertPacked<std::uint8_t>(planes[0] + packedOffset, out, samples, 1.0f / 128, 128.0f);
            case AV_SAMPLE_FMT_S16:
                return convertPacked<std::int16_t>(planes[0] + packedOffset * 2, out, samples, 1.0f / 32768);
            case AV_SAMPLE_FMT_S32:
                return convertPacked<std::int32_t>(planes[0] + packedOffset * 4, out, samples, 1.0f / 2147483648.0f);
            case AV_SAMPLE_FMT_S64:
                return convertPacked<std::int64_t>(planes[0] + packedOffset * 8, out, samples, 1.0f / 9223372036854775808.0f);
            case AV_SAMPLE_FMT_FLT:
                std::copy_n(reinterpret_cast<const float*>(planes[0]) + packedOffset, samples, out);
                return;
            case AV_SAMPLE_FMT_DBL:
                return convertPacked<double>(planes[0] + packedOffset * 8, out, samples, 1.0f);
            case AV_SAMPLE_FMT_U8P:
                return convertPlanar<std::uint8_t>(planes, ch, firstFrame, frames, out, 1.0f / 128, 128.0f);
            case AV_SAMPLE_FMT_S16P:
                return convertPlanar<std::int16_t>(planes, ch, firstFrame, frames, out, 1.0f / 32768);
            case AV_SAMPLE_FMT_S32P:
                return convertPlanar<std::int32_t>(planes, ch, firstFrame, frames, out, 1.0f / 2147483648.0f);
            case AV_SAMPLE_FMT_S64P:
                return convertPlanar<std::int64_t>(planes, ch, firstFrame, frames, out, 1.0f / 9223372036854775808.0f);
            case AV_SAMPLE_FMT_FLTP:
                return convertPlanar<float>(planes, ch, firstFrame, frames, out, 1.0f);
            case AV_SAMPLE_FMT_DBLP:
                return convertPlanar<double>(planes, ch, firstFrame, frames, out, 1.0f);
            default:
                fail(fmt::format("unsupported sample format {}", static_cast<int>(fmt)));
        }
    }
};

AudioFileDecoder::AudioFileDecoder(const std::filesystem::path& path) : state_(std::make_unique<State>()) {
    silenceFFmpegLog();
    auto& s = *state_;
    s.path = path;

    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) s.fail("is a folder, not an audio file");
    int rc = avformat_open_input(&s.format, path.c_str(), nullptr, nullptr);
    if (rc < 0) s.fail(fmt::format("cannot open: {}", averror(rc)));
    rc = avformat_find_stream_info(s.format, nullptr);
    if (rc < 0) s.fail(fmt::format("not a readable audio file: {}", averror(rc)));

    const AVCodec* decoder = nullptr;
    s.streamIndex = av_find_best_stream(s.format, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (s.streamIndex == AVERROR_DECODER_NOT_FOUND) s.fail("no decoder for its audio codec");
    if (s.streamIndex < 0) s.fail("holds no audio stream");
    for (unsigned i = 0; i < s.format->nb_streams; ++i)
        if (static_cast<int>(i) != s.streamIndex) s.format->streams[i]->discard = AVDISCARD_ALL;

    const AVStream* stream = s.format->streams[s.streamIndex];
    s.codec = avcodec_alloc_context3(decoder);
    if (!s.codec) s.fail("out of memory");
    rc = avcodec_parameters_to_context(s.codec, stream->codecpar);
    if (rc < 0) s.fail(fmt::format("cannot set up the decoder: {}", averror(rc)));
    rc = avcodec_open2(s.codec, decoder, nullptr);
    if (rc < 0) s.fail(fmt::format("cannot open the {} decoder: {}", decoder->name, averror(rc)));

    s.sampleRate = s.codec->sample_rate;
    s.channelCount = s.codec->ch_layout.nb_channels;
    if (s.sampleRate <= 0) s.fail("the audio stream has no sample rate");
    if (s.channelCount <= 0) s.fail("the audio stream has no channels");
    if (s.channelCount > maxChannelCount)
        s.fail(fmt::format("{} channels; at most {} are supported", s.channelCount, maxChannelCount));

    s.packet = av_packet_alloc();
    s.frame = av_frame_alloc();
    if (!s.packet || !s.frame) s.fail("out of memory");
}

AudioFileDecoder::~AudioFileDecoder() = default;

const std::filesystem::path& AudioFileDecoder::path() const { return state_->path; }
int AudioFileDecoder::sampleRate() const { return state_->sampleRate; }
int AudioFileDecoder::channelCount() const { return state_->channelCount; }

std::optional<std::int64_t> AudioFileDecoder::estimatedFrameCount() const {
    const AVStream* stream = state_->format->streams[state_->streamIndex];
    if (stream->duration > 0)
        return av_rescale_q(stream->duration, stream->time_base, AVRational{1, state_->sampleRate});
    if (state_->format->duration > 0)
        return av_rescale_q(state_->format->duration, AVRational{1, AV_TIME_BASE}, AVRational{1, state_->sampleRate});
    return std::nullopt;
}

int AudioFileDecoder::read(float* interleaved, int maxFrames) {
    auto& s = *state_;
    int done = 0;
    while (done < maxFrames && !s.isFinished) {
        if (!s.hasFrame) {
            if (!s.decodeNextFrame()) {
                s.isFinished = true;
                break;
            }
            s.hasFrame = true;
            s.frameOffset = 0;
        }
        const int available = s.frame->nb_samples - s.frameOffset;
        const int n = std::min(available, maxFrames - done);
        if (n > 0) s.convert(s.frameOffset, n, interleaved + static_cast<std::size_t>(done) * s.channelCount);
        done += n;
        s.frameOffset += n;
        if (s.frameOffset >= s.frame->nb_samples) {
            av_frame_unref(s.frame);
            s.hasFrame = false;
        }
    }
    return done;
}

} // namespace tarn
