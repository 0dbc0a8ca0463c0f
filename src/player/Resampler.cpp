#include "player/Resampler.hpp"

#include <fmt/format.h>

#include "player/FFmpegLibrary.hpp"

namespace tarn {

struct Resampler::State {
    const FFmpegLibrary& ff;
    SwrContext* context = nullptr;
};

Resampler::Resampler(int channelCount, int inputRate, int outputRate)
    : channelCount_(channelCount), inputRate_(inputRate), outputRate_(outputRate) {
    const FFmpegLibrary* ff = nullptr;
    try {
        ff = &FFmpegLibrary::instance();
    } catch (const std::runtime_error& e) {
        throw Error(e.what());
    }
    state_ = std::make_unique<State>(State{*ff});
    AVChannelLayout layout{};
    ff->av_channel_layout_default(&layout, channelCount);
    const int rc = ff->swr_alloc_set_opts2(&state_->context, &layout, AV_SAMPLE_FMT_FLT, outputRate, &layout,
                                           AV_SAMPLE_FMT_FLT, inputRate, 0, nullptr);
    if (rc < 0 || !state_->context || ff->swr_init(state_->context) < 0)
        throw Error(fmt::format("cannot convert {} Hz to {} Hz", inputRate, outputRate));
}

Resampler::~Resampler() {
    if (state_ && state_->context) state_->ff.swr_free(&state_->context);
}

const std::vector<float>& Resampler::process(const float* interleaved, int frames) {
    const int room = state_->ff.swr_get_out_samples(state_->context, frames);
    output_.resize(std::size_t(std::max(room, 0) + 16) * std::size_t(channelCount_));
    auto* out = reinterpret_cast<std::uint8_t*>(output_.data());
    const auto* in = reinterpret_cast<const std::uint8_t*>(interleaved);
    const int made = state_->ff.swr_convert(state_->context, &out, std::max(room, 0) + 16, frames > 0 ? &in : nullptr, frames);
    if (made < 0) throw Error(fmt::format("converting {} Hz to {} Hz failed", inputRate_, outputRate_));
    output_.resize(std::size_t(made) * std::size_t(channelCount_));
    return output_;
}

} // namespace tarn
