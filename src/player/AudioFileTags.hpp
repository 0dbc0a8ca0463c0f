#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

// What a music file says about itself: its tags (ID3, Vorbis comments, MP4 atoms, RIFF INFO, as
// FFmpeg reads them), its length, its embedded cover picture and its lyrics. A file without
// tags gives its file name as the title; a file FFmpeg cannot open gives that and nothing else.
struct AudioFileTags {
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    std::optional<int> trackNumber;
    std::optional<double> durationSeconds;
    // The embedded picture's bytes (JPEG or PNG) and its type; empty when there is none.
    std::vector<unsigned char> coverArt;
    std::string coverArtMimeType;
    // Lyrics from the tags (plain or LRC text); empty when there are none.
    std::string lyrics;

    static AudioFileTags read(const std::filesystem::path& path);
};

} // namespace tarn
