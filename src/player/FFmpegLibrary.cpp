#include "player/FFmpegLibrary.hpp"

#include <stdexcept>
#include <string>

#include <dlfcn.h>

#include <fmt/format.h>

namespace tarn {
namespace {

void* openLibrary(const std::string& soname) {
    // Never closed: FFmpeg stays loaded for the rest of the process once it is needed.
    void* handle = ::dlopen(soname.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) throw std::runtime_error(fmt::format("cannot load FFmpeg ({}): {}", soname, ::dlerror()));
    return handle;
}

template <typename Function>
void resolve(void* library, const char* name, Function& out) {
    void* symbol = ::dlsym(library, name);
    if (!symbol) throw std::runtime_error(fmt::format("cannot load FFmpeg: {} is missing", name));
    out = reinterpret_cast<Function>(symbol);
}

} // namespace

const FFmpegLibrary& FFmpegLibrary::instance() {
    // A failed load throws out of the initialiser, so the next call tries again.
    static const FFmpegLibrary library;
    return library;
}

FFmpegLibrary::FFmpegLibrary() {
    void* util = openLibrary(fmt::format("libavutil.so.{}", LIBAVUTIL_VERSION_MAJOR));
    void* codec = openLibrary(fmt::format("libavcodec.so.{}", LIBAVCODEC_VERSION_MAJOR));
    void* format = openLibrary(fmt::format("libavformat.so.{}", LIBAVFORMAT_VERSION_MAJOR));
    void* resample = openLibrary(fmt::format("libswresample.so.{}", LIBSWRESAMPLE_VERSION_MAJOR));

#define TARN_RESOLVE(lib, name) resolve(lib, #name, name)
    TARN_RESOLVE(format, avformat_open_input);
    TARN_RESOLVE(format, avformat_find_stream_info);
    TARN_RESOLVE(format, av_find_best_stream);
    TARN_RESOLVE(format, av_read_frame);
    TARN_RESOLVE(format, avformat_close_input);
    TARN_RESOLVE(format, av_seek_frame);
    TARN_RESOLVE(codec, avcodec_flush_buffers);
    TARN_RESOLVE(codec, avcodec_alloc_context3);
    TARN_RESOLVE(codec, avcodec_parameters_to_context);
    TARN_RESOLVE(codec, avcodec_open2);
    TARN_RESOLVE(codec, avcodec_send_packet);
    TARN_RESOLVE(codec, avcodec_receive_frame);
    TARN_RESOLVE(codec, avcodec_free_context);
    TARN_RESOLVE(codec, av_packet_alloc);
    TARN_RESOLVE(codec, av_packet_unref);
    TARN_RESOLVE(codec, av_packet_free);
    TARN_RESOLVE(util, av_frame_alloc);
    TARN_RESOLVE(util, av_frame_unref);
    TARN_RESOLVE(util, av_frame_free);
    TARN_RESOLVE(util, av_strerror);
    TARN_RESOLVE(util, av_log_set_level);
    TARN_RESOLVE(util, av_rescale_q);
    TARN_RESOLVE(util, av_channel_layout_default);
    TARN_RESOLVE(util, av_dict_get);
    TARN_RESOLVE(resample, swr_alloc_set_opts2);
    TARN_RESOLVE(resample, swr_init);
    TARN_RESOLVE(resample, swr_convert);
    TARN_RESOLVE(resample, swr_get_out_samples);
    TARN_RESOLVE(resample, swr_free);
#undef TARN_RESOLVE

    // FFmpeg writes its own diagnostics to stderr; every failure reaches the user through the
    // decoder's error instead, with the file named, so the library stays quiet.
    av_log_set_level(AV_LOG_QUIET);
}

} // namespace tarn
