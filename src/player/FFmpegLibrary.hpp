#pragma once

// FFmpeg, loaded on first use. Linking it directly would make every start of `tarn` load its
// ~130 dependent libraries (tens of milliseconds of CPU even for `tarn version`), so the few
// entry points the decoder needs are resolved at run time instead. The headers still describe
// the structures, and the sonames are the major versions the headers belong to.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace tarn {

class FFmpegLibrary {
public:
    // The process-wide instance; throws std::runtime_error saying what could not be loaded.
    static const FFmpegLibrary& instance();

    decltype(&::avformat_open_input) avformat_open_input;
    decltype(&::avformat_find_stream_info) avformat_find_stream_info;
    decltype(&::av_find_best_stream) av_find_best_stream;
    decltype(&::av_read_frame) av_read_frame;
    decltype(&::avformat_close_input) avformat_close_input;
    decltype(&::av_seek_frame) av_seek_frame;
    decltype(&::avcodec_flush_buffers) avcodec_flush_buffers;
    decltype(&::avcodec_alloc_context3) avcodec_alloc_context3;
    decltype(&::avcodec_parameters_to_context) avcodec_parameters_to_context;
    decltype(&::avcodec_open2) avcodec_open2;
    decltype(&::avcodec_send_packet) avcodec_send_packet;
    decltype(&::avcodec_receive_frame) avcodec_receive_frame;
    decltype(&::avcodec_free_context) avcodec_free_context;
    decltype(&::av_packet_alloc) av_packet_alloc;
    decltype(&::av_packet_unref) av_packet_unref;
    decltype(&::av_packet_free) av_packet_free;
    decltype(&::av_frame_alloc) av_frame_alloc;
    decltype(&::av_frame_unref) av_frame_unref;
    decltype(&::av_frame_free) av_frame_free;
    decltype(&::av_strerror) av_strerror;
    decltype(&::av_log_set_level) av_log_set_level;
    decltype(&::av_rescale_q) av_rescale_q;
    decltype(&::av_channel_layout_default) av_channel_layout_default;
    decltype(&::av_dict_get) av_dict_get;
    decltype(&::swr_alloc_set_opts2) swr_alloc_set_opts2;
    decltype(&::swr_init) swr_init;
    decltype(&::swr_convert) swr_convert;
    decltype(&::swr_get_out_samples) swr_get_out_samples;
    decltype(&::swr_free) swr_free;

private:
    FFmpegLibrary();
};

} // namespace tarn
