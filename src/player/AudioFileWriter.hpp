#pragma once

#include <filesystem>
#include <stdexcept>
#include <vector>

struct sf_private_tag;

namespace tarn {

// Writes interleaved 32-bit float WAV. The samples go to a temporary file next to the target,
// which replaces the target only on commit(); a writer destroyed without commit removes its
// temporary file, so a failed or interrupted render never leaves a half-written file behind.
// Files past the 4 GiB limit of WAV are written as RF64.
//
// It never destroys what it was given: the target must not be any of `inputs` (the same file by
// identity, through links and other spellings), and only a regular file is replaced, never a
// device, pipe or socket. The temporary file is named ".<target>.tarn-<host>-<pid>-XXXXXX";
// one left by a writer that was killed outright is removed by the next writer in that folder
// once its process no longer runs.
class AudioFileWriter {
public:
    // Failures name the file (or its folder when the temporary file cannot be created).
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    AudioFileWriter(std::filesystem::path target, int sampleRate, int channelCount,
                    const std::vector<std::filesystem::path>& inputs = {});
    ~AudioFileWriter();
    AudioFileWriter(const AudioFileWriter&) = delete;
    AudioFileWriter& operator=(const AudioFileWriter&) = delete;

    void write(const float* interleaved, int frameCount);
    // Flushes to disk and renames the temporary file over the target.
    void commit();
    // Drops what was written; the target is left as it was.
    void discard();

    const std::filesystem::path& target() const { return target_; }
    const std::filesystem::path& temporaryPath() const { return temporaryPath_; }

private:
    // Throws when the target exists and may not be replaced.
    void checkTarget() const;

    std::filesystem::path target_;
    std::vector<std::filesystem::path> inputs_;
    std::filesystem::path temporaryPath_;
    sf_private_tag* file_ = nullptr;
    int channelCount_;
    bool isOpen_ = false;
};

} // namespace tarn
