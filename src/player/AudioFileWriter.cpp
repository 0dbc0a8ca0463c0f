#include "player/AudioFileWriter.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace tarn {
namespace {

mode_t currentUmask() {
    // umask can only be read by setting it; the value is put straight back.
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return mask;
}

} // namespace

AudioFileWriter::AudioFileWriter(std::filesystem::path target, int sampleRate, int channelCount)
    : target_(std::move(target)), channelCount_(channelCount) {
    std::error_code ec;
    if (std::filesystem::is_directory(target_, ec))
        throw Error(fmt::format("{}: is a folder, not a file name", target_.string()));
    if (sampleRate <= 0 || channelCount <= 0)
        throw Error(fmt::format("{}: cannot write {} channels at {} Hz", target_.string(), channelCount, sampleRate));

    // The temporary file sits in the target's folder so that the final rename stays on one file system.
    const auto folder = target_.has_parent_path() ? target_.parent_path() : std::filesystem::path(".");
    std::string pattern = (folder / fmt::format(".{}.tarn-XXXXXX", target_.filename().string())).string();
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0)
        throw Error(fmt::format("{}: cannot create a file in {}: {}", target_.string(), folder.string(),
                                std::strerror(errno)));
    temporaryPath_ = pattern;
    // mkstemp creates the file private to the user; the result gets the usual permissions instead.
    ::fchmod(fd, 0666 & ~currentUmask());

    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channelCount;
    info.format = SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
    file_ = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!file_) {
        const std::string why = sf_strerror(nullptr);
        ::close(fd);
        ::unlink(temporaryPath_.c_str());
        throw Error(fmt::format("{}: cannot write: {}", target_.string(), why));
    }
    // Plain WAV unless the data outgrows it.
    sf_command(file_, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    isOpen_ = true;
}

AudioFileWriter::~AudioFileWriter() { discard(); }

void AudioFileWriter::write(const float* interleaved, int frameCount) {
    if (!isOpen_) throw Error(fmt::format("{}: the writer is already closed", target_.string()));
    const sf_count_t written = sf_writef_float(file_, interleaved, frameCount);
    if (written != frameCount)
        throw Error(fmt::format("{}: cannot write: {}", target_.string(), sf_strerror(file_)));
}

void AudioFileWriter::commit() {
    if (!isOpen_) throw Error(fmt::format("{}: the writer is already closed", target_.string()));
    sf_write_sync(file_);   // header finalised and data flushed to disk before the rename
    const int syncError = sf_error(file_);
    const std::string why = syncError ? sf_strerror(file_) : "";
    const int closeError = sf_close(file_);
    file_ = nullptr;
    isOpen_ = false;
    if (syncError || closeError) {
        ::unlink(temporaryPath_.c_str());
        throw Error(fmt::format("{}: cannot finish writing: {}", target_.string(),
                                syncError ? why : sf_error_number(closeError)));
    }
    if (::rename(temporaryPath_.c_str(), target_.c_str()) != 0) {
        const int err = errno;
        ::unlink(temporaryPath_.c_str());
        throw Error(fmt::format("{}: cannot replace: {}", target_.string(), std::strerror(err)));
    }
    temporaryPath_.clear();
}

void AudioFileWriter::discard() {
    if (isOpen_) {
        sf_close(file_);
        file_ = nullptr;
        isOpen_ = false;
    }
    if (!temporaryPath_.empty()) {
        ::unlink(temporaryPath_.c_str());
        temporaryPath_.clear();
    }
}

} // namespace tarn
