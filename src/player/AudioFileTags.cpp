#include "player/AudioFileTags.hpp"

#include <cstdlib>

#include "player/FFmpegLibrary.hpp"

namespace tarn {

namespace {

// A picture larger than this is not a cover: it is left out rather than held in memory.
constexpr int maxCoverArtBytes = 16 << 20;

std::string tag(const FFmpegLibrary& ff, AVDictionary* metadata, std::initializer_list<const char*> keys) {
    for (const char* key : keys)
        if (const AVDictionaryEntry* e = ff.av_dict_get(metadata, key, nullptr, 0); e && e->value && *e->value)
            return e->value;
    return {};
}

} // namespace

AudioFileTags AudioFileTags::read(const std::filesystem::path& path) {
    AudioFileTags tags;
    const FFmpegLibrary* ff = nullptr;
    try {
        ff = &FFmpegLibrary::instance();
    } catch (const std::runtime_error&) {
        tags.title = path.stem().string();
        return tags;
    }
    AVFormatContext* format = nullptr;
    if (ff->avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) {
        tags.title = path.stem().string();
        return tags;
    }
    if (ff->avformat_find_stream_info(format, nullptr) >= 0 && format->duration > 0)
        tags.durationSeconds = double(format->duration) / AV_TIME_BASE;
    // Containers keep tags on the file (MP3, FLAC, MP4) or on the audio stream (Ogg).
    AVDictionary* sources[] = {format->metadata, nullptr};
    const int audio = ff->av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (audio >= 0) sources[1] = format->streams[audio]->metadata;
    for (AVDictionary* metadata : sources) {
        if (!metadata) continue;
        // The file's own tags first; the stream's fill what they leave open.
        auto fill = [&](std::string& field, std::initializer_list<const char*> keys) {
            if (field.empty()) field = tag(*ff, metadata, keys);
        };
        fill(tags.title, {"title", "TITLE"});
        fill(tags.artist, {"artist", "ARTIST", "album_artist"});
        fill(tags.album, {"album", "ALBUM"});
        fill(tags.genre, {"genre", "GENRE"});
        fill(tags.lyrics, {"lyrics", "LYRICS", "UNSYNCEDLYRICS", "unsyncedlyrics"});
        if (!tags.trackNumber) {
            const std::string track = tag(*ff, metadata, {"track", "TRACKNUMBER"});
            if (const int n = std::atoi(track.c_str()); n > 0) tags.trackNumber = n; // "3/12" reads as 3
        }
    }
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        if (!(stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
        const AVPacket& picture = stream->attached_pic;
        if (picture.size <= 0 || picture.size > maxCoverArtBytes) continue;
        tags.coverArt.assign(picture.data, picture.data + picture.size);
        tags.coverArtMimeType = stream->codecpar->codec_id == AV_CODEC_ID_PNG ? "image/png" : "image/jpeg";
        break;
    }
    ff->avformat_close_input(&format);
    if (tags.title.empty()) tags.title = path.stem().string();
    return tags;
}

} // namespace tarn
