#include "player/AudioFileDecoder.hpp"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fstream>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <sndfile.h>

#include "player/FFmpegLibrary.hpp"

namespace tarn {
namespace {

std::string averror(const FFmpegLibrary& ff, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    ff.av_strerror(code, text, sizeof text);
    return text;
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

// One way of reading a file; the decoder picks one when it opens the file.
struct AudioFileDecoder::State {
    std::filesystem::path path;
    int sampleRate = 0;
    int channelCount = 0;

    virtual ~State() = default;
    virtual int read(float* interleaved, int maxFrames) = 0;
    virtual std::optional<std::int64_t> estimatedFrameCount() const = 0;
    virtual void seek(std::int64_t frame) = 0;

    [[noreturn]] void fail(const std::string& what) const {
        throw AudioFileDecoder::Error(fmt::format("{}: {}", path.string(), what));
    }
    void checkFormat() const {
        if (sampleRate <= 0) fail("the audio stream has no sample rate");
        if (channelCount <= 0) fail("the audio stream has no channels");
        if (channelCount > maxChannelCount)
            fail(fmt::format("{} channels; at most {} are supported", channelCount, maxChannelCount));
    }
};

namespace {

// Uncompressed and lossless containers that libsndfile reads exactly, without loading FFmpeg.
class SndfileState final : public AudioFileDecoder::State {
public:
    // Nothing when libsndfile does not read the file or it is better left to FFmpeg.
    static std::unique_ptr<SndfileState> open(const std::filesystem::path& path) {
        // Only files that announce one of these containers in their first bytes: libsndfile's
        // own probing of anything else (MP3 through mpg123) writes warnings to stderr.
        if (!hasSndfileSignature(path)) return nullptr;
        SF_INFO info{};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        if (!file) return nullptr;
        switch (info.format & SF_FORMAT_TYPEMASK) {
            case SF_FORMAT_WAV:
            case SF_FORMAT_WAVEX:
            case SF_FORMAT_RF64:
            case SF_FORMAT_W64:
            case SF_FORMAT_AIFF:
            case SF_FORMAT_FLAC:
            case SF_FORMAT_CAF:
                break;
            default:
                sf_close(file);
                return nullptr;
        }
        auto state = std::unique_ptr<SndfileState>(new SndfileState(file, info));
        state->path = path;
        state->sampleRate = info.samplerate;
        state->channelCount = info.channels;
        state->checkFormat();
        return state;
    }

    ~SndfileState() override { sf_close(file_); }

    static bool hasSndfileSignature(const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        char head[12] = {};
        if (!in.read(head, sizeof head)) return false;
        const std::string_view h(head, sizeof head);
        const std::string_view riff = h.substr(0, 4), kind = h.substr(8, 4);
        return ((riff == "RIFF" || riff == "RF64" || riff == "BW64") && kind == "WAVE") ||
               (riff == "FORM" && (kind == "AIFF" || kind == "AIFC")) || riff == "fLaC" || riff == "caff" ||
               h.substr(0, 4) == "riff";   // Sony Wave64
    }

    int read(float* interleaved, int maxFrames) override {
        int done = 0;
        while (done < maxFrames) {
            const sf_count_t n = sf_readf_float(file_, interleaved + static_cast<std::size_t>(done) * channelCount,
                                                maxFrames - done);
            if (n <= 0) break;
            done += static_cast<int>(n);
        }
        // What was decoded before damaged data is handed out first; the next read meets the
        // damage again and fails.
        if (done == 0 && sf_error(file_) != SF_ERR_NO_ERROR) fail(fmt::format("cannot decode: {}", sf_strerror(file_)));
        return done;
    }

    std::optional<std::int64_t> estimatedFrameCount() const override {
        if (info_.frames > 0 && info_.frames != SF_COUNT_MAX) return info_.frames;
        return std::nullopt;
    }

    void seek(std::int64_t frame) override {
        // Past the end means at the end: nothing more to read.
        const sf_count_t target = estimatedFrameCount() ? std::min<sf_count_t>(frame, info_.frames) : frame;
        if (sf_seek(file_, target, SEEK_SET) < 0) fail(fmt::format("cannot seek: {}", sf_strerror(file_)));
    }

private:
    SndfileState(SNDFILE* file, const SF_INFO& info) : file_(file), info_(info) {}
    SNDFILE* file_;
    SF_INFO info_;
};

// Everything else FFmpeg reads: MP3, AAC/M4A, ALAC, Opus, ...
class FFmpegState final : public AudioFileDecoder::State {
public:
    explicit FFmpegState(const std::filesystem::path& p) : ff_(loadLibrary(p)) {
        path = p;
        int rc = ff_.avformat_open_input(&format_, path.c_str(), nullptr, nullptr);
        if (rc == AVERROR(ENOENT) || rc == AVERROR(EACCES) || rc == AVERROR(EISDIR))
            fail(fmt::format("cannot open: {}", averror(ff_, rc)));
        if (rc < 0) fail(fmt::format("not an audio file that can be read ({})", averror(ff_, rc)));
        rc = ff_.avformat_find_stream_info(format_, nullptr);
        if (rc < 0) fail(fmt::format("not an audio file that can be read ({})", averror(ff_, rc)));

        const AVCodec* decoder = nullptr;
        streamIndex_ = ff_.av_find_best_stream(format_, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
        if (streamIndex_ == AVERROR_DECODER_NOT_FOUND) fail("no decoder for its audio codec");
        if (streamIndex_ < 0) fail("not an audio file (no audio stream found)");
        for (unsigned i = 0; i < format_->nb_streams; ++i)
            if (static_cast<int>(i) != streamIndex_) format_->streams[i]->discard = AVDISCARD_ALL;

        const AVStream* stream = format_->streams[streamIndex_];
        codec_ = ff_.avcodec_alloc_context3(decoder);
        if (!codec_) fail("out of memory");
        rc = ff_.avcodec_parameters_to_context(codec_, stream->codecpar);
        if (rc < 0) fail(fmt::format("cannot set up the decoder: {}", averror(ff_, rc)));
        rc = ff_.avcodec_open2(codec_, decoder, nullptr);
        if (rc < 0) fail(fmt::format("cannot open the {} decoder: {}", decoder->name, averror(ff_, rc)));

        sampleRate = codec_->sample_rate;
        channelCount = codec_->ch_layout.nb_channels;
        checkFormat();

        packet_ = ff_.av_packet_alloc();
        frame_ = ff_.av_frame_alloc();
        if (!packet_ || !frame_) fail("out of memory");
    }

    ~FFmpegState() override {
        ff_.av_frame_free(&frame_);
        ff_.av_packet_free(&packet_);
        ff_.avcodec_free_context(&codec_);
        ff_.avformat_close_input(&format_);
    }

    int read(float* interleaved, int maxFrames) override {
        if (deferredFailure_) std::rethrow_exception(std::exchange(deferredFailure_, nullptr));
        int done = 0;
        while (done < maxFrames && !isFinished_) {
            if (!hasFrame_) {
                bool hasNext = false;
                try {
                    hasNext = decodeNextFrame();
                } catch (const AudioFileDecoder::Error&) {
                    // What was decoded before damaged data is handed out first.
                    if (done == 0) throw;
                    deferredFailure_ = std::current_exception();
                    break;
                }
                if (!hasNext) {
                    isFinished_ = true;
                    break;
                }
                hasFrame_ = true;
                frameOffset_ = 0;
            }
            const int n = std::min(frame_->nb_samples - frameOffset_, maxFrames - done);
            if (n > 0) convert(frameOffset_, n, interleaved + static_cast<std::size_t>(done) * channelCount);
            done += n;
            frameOffset_ += n;
            if (frameOffset_ >= frame_->nb_samples) {
                ff_.av_frame_unref(frame_);
                hasFrame_ = false;
            }
        }
        return done;
    }

    // Lands on the exact frame: the demuxer seeks to a packet a little before it, the decoder
    // starts again from there, and whatever comes before the frame is dropped. The margin lets
    // codecs that lean on earlier packets (MP3's bit reservoir, AAC's overlap) warm up first.
    void seek(std::int64_t frame) override {
        constexpr std::int64_t warmUpFrames = 4096;
        AVStream* stream = format_->streams[streamIndex_];
        const std::int64_t origin = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
        const std::int64_t timestamp =
            origin + ff_.av_rescale_q(std::max<std::int64_t>(frame - warmUpFrames, 0), AVRational{1, sampleRate}, stream->time_base);
        const int rc = ff_.av_seek_frame(format_, streamIndex_, timestamp, AVSEEK_FLAG_BACKWARD);
        if (rc < 0) fail(fmt::format("cannot seek: {}", averror(ff_, rc)));
        ff_.avcodec_flush_buffers(codec_);
        if (hasFrame_) ff_.av_frame_unref(frame_);
        hasFrame_ = false;
        isInputDone_ = false;
        isFinished_ = false;
        frameOffset_ = 0;
        while (decodeNextFrame()) {
            const std::int64_t pts = frame_->best_effort_timestamp;
            const std::int64_t start =
                pts == AV_NOPTS_VALUE ? frame : ff_.av_rescale_q(pts - origin, stream->time_base, AVRational{1, sampleRate});
            if (start + frame_->nb_samples > frame) {
                hasFrame_ = true;
                frameOffset_ = static_cast<int>(std::clamp<std::int64_t>(frame - start, 0, frame_->nb_samples));
                return;
            }
            ff_.av_frame_unref(frame_);
        }
        isFinished_ = true;
    }

    std::optional<std::int64_t> estimatedFrameCount() const override {
        const AVStream* stream = format_->streams[streamIndex_];
        if (stream->duration > 0) return ff_.av_rescale_q(stream->duration, stream->time_base, AVRational{1, sampleRate});
        if (format_->duration > 0)
            return ff_.av_rescale_q(format_->duration, AVRational{1, AV_TIME_BASE}, AVRational{1, sampleRate});
        return std::nullopt;
    }

private:
    static const FFmpegLibrary& loadLibrary(const std::filesystem::path& path) {
        try {
            return FFmpegLibrary::instance();
        } catch (const std::runtime_error& e) {
            throw AudioFileDecoder::Error(fmt::format("{}: {}", path.string(), e.what()));
        }
    }

    // Makes frame_ hold the next decoded frame; false at the end of the stream.
    bool decodeNextFrame() {
        for (;;) {
            int rc = ff_.avcodec_receive_frame(codec_, frame_);
            if (rc == 0) {
                if (frame_->sample_rate != sampleRate || frame_->ch_layout.nb_channels != channelCount)
                    fail("the audio format changes in the middle of the file");
                return true;
            }
            if (rc == AVERROR_EOF) return false;
            if (rc != AVERROR(EAGAIN)) fail(fmt::format("cannot decode: {}", averror(ff_, rc)));
            if (isInputDone_) return false;

            // The decoder wants more input.
            rc = ff_.av_read_frame(format_, packet_);
            if (rc == AVERROR_EOF) {
                isInputDone_ = true;
                ff_.avcodec_send_packet(codec_, nullptr);   // drain what the decoder still holds
                continue;
            }
            if (rc < 0) fail(fmt::format("cannot read: {}", averror(ff_, rc)));
            if (packet_->stream_index == streamIndex_) {
                rc = ff_.avcodec_send_packet(codec_, packet_);
                ff_.av_packet_unref(packet_);
                if (rc < 0 && rc != AVERROR(EAGAIN)) fail(fmt::format("cannot decode: {}", averror(ff_, rc)));
            } else {
                ff_.av_packet_unref(packet_);
            }
        }
    }

    void convert(int firstFrame, int frames, float* out) const {
        const int ch = channelCount;
        const auto sampleFormat = static_cast<AVSampleFormat>(frame_->format);
        std::uint8_t* const* planes = frame_->extended_data;
        const std::size_t packedOffset = static_cast<std::size_t>(firstFrame) * ch;
        const int samples = frames * ch;
        switch (sampleFormat) {
            case AV_SAMPLE_FMT_U8:
                return convertPacked<std::uint8_t>(planes[0] + packedOffset, out, samples, 1.0f / 128, 128.0f);
            case AV_SAMPLE_FMT_S16:
                return convertPacked<std::int16_t>(planes[0] + packedOffset * 2, out, samples, 1.0f / 32768);
            case AV_SAMPLE_FMT_S32:
                return convertPacked<std::int32_t>(planes[0] + packedOffset * 4, out, samples, 1.0f / 2147483648.0f);
            case AV_SAMPLE_FMT_S64:
                return convertPacked<std::int64_t>(planes[0] + packedOffset * 8, out, samples,
                                                   1.0f / 9223372036854775808.0f);
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
                fail(fmt::format("unsupported sample format {}", static_cast<int>(sampleFormat)));
        }
    }

    const FFmpegLibrary& ff_;
    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    int streamIndex_ = -1;
    int frameOffset_ = 0;        // frames of frame_ already handed out
    bool hasFrame_ = false;
    bool isInputDone_ = false;   // demuxer exhausted, decoder told to drain
    bool isFinished_ = false;
    std::exception_ptr deferredFailure_;
};

} // namespace

AudioFileDecoder::AudioFileDecoder(const std::filesystem::path& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw Error(fmt::format("{}: is a folder, not an audio file", path.string()));
    state_ = SndfileState::open(path);
    if (!state_) state_ = std::make_unique<FFmpegState>(path);
}

AudioFileDecoder::~AudioFileDecoder() = default;

const std::filesystem::path& AudioFileDecoder::path() const { return state_->path; }
int AudioFileDecoder::sampleRate() const { return state_->sampleRate; }
int AudioFileDecoder::channelCount() const { return state_->channelCount; }
std::optional<std::int64_t> AudioFileDecoder::estimatedFrameCount() const { return state_->estimatedFrameCount(); }
int AudioFileDecoder::read(float* interleaved, int maxFrames) {
    if (isOver_) return 0;
    int n = 0;
    try {
        n = state_->read(interleaved, maxFrames);
    } catch (const Error& e) {
        // Damage after some audio, in a file whose header announces more: the end of a file cut
        // short, most likely. What came before is kept and the end is reported (shortfall).
        const auto announced = estimatedFrameCount();
        if (decodedFrames_ == 0 || !announced || *announced <= decodedFrames_) throw;
        std::string why = e.what();
        if (const std::string prefix = path().string() + ": "; why.starts_with(prefix)) why.erase(0, prefix.size());
        damage_ = why;
        isOver_ = true;
        return 0;
    }
    decodedFrames_ += n;
    if (n == 0 && maxFrames > 0) isOver_ = true;
    return n;
}

std::optional<std::string> AudioFileDecoder::shortfall() const {
    const auto announced = estimatedFrameCount();
    if (!isOver_ || !announced) return std::nullopt;
    // Encoders pad and prime by a few thousand frames at most; a tenth of a second (or half a
    // percent of a long file) is well past that and well short of any real truncation.
    const double rate = sampleRate();
    const std::int64_t tolerance = std::max<std::int64_t>(std::int64_t(rate / 10), *announced / 200);
    if (!damage_ && *announced - decodedFrames_ <= tolerance) return std::nullopt;
    return fmt::format("{}: the audio ends after {:.1f} s, {:.1f} s short of the {:.1f} s its header announces{}; "
                       "the file looks cut short (a copy or download that did not finish)",
                       path().string(), double(decodedFrames_) / rate,
                       double(std::max<std::int64_t>(*announced - decodedFrames_, 0)) / rate, double(*announced) / rate,
                       damage_ ? " (" + *damage_ + ")" : std::string());
}

void AudioFileDecoder::seek(std::int64_t frame) {
    frame = std::max<std::int64_t>(frame, 0);
    state_->seek(frame);
    // Reading starts again from there: what a later shortfall compares is counted from it.
    decodedFrames_ = frame;
    isOver_ = false;
    damage_.reset();
}

} // namespace tarn
