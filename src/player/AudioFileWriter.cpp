#include "player/AudioFileWriter.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace tarn {
namespace {

constexpr std::string_view temporaryMarker = ".tarn-";
// mkostemp's six random characters.
constexpr std::size_t randomLength = 6;

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || !name[0]) return "localhost";
    std::string host(name);
    for (char& c : host)
        if (c == '/') c = '_';
    return host;
}

std::string kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a file";
}

// The pid in ".<name>.tarn-<host>-<pid>-XXXXXX" when `name` is a temporary file of a writer on
// this host; 0 otherwise.
pid_t writerOf(std::string_view name, std::string_view host) {
    if (!name.starts_with('.') || name.size() < randomLength + 1) return 0;
    const std::size_t marker = name.rfind(temporaryMarker);
    if (marker == std::string_view::npos || marker == 0) return 0;
    std::string_view rest = name.substr(marker + temporaryMarker.size());   // <host>-<pid>-XXXXXX
    if (!rest.starts_with(host) || rest.size() < host.size() + 1 + 1 + 1 + randomLength) return 0;
    rest.remove_prefix(host.size());
    if (rest.front() != '-' || rest[rest.size() - randomLength - 1] != '-') return 0;
    const std::string_view digits = rest.substr(1, rest.size() - randomLength - 2);
    if (digits.empty() || digits.size() > 9) return 0;
    pid_t pid = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return 0;
        pid = pid * 10 + (c - '0');
    }
    return pid;
}

// A process that has exited is gone even while nobody has reaped it yet (a zombie cannot write).
bool hasExited(pid_t pid) {
    if (::kill(pid, 0) != 0) return errno == ESRCH;
    std::ifstream stat(fmt::format("/proc/{}/stat", pid));
    std::string line;
    if (!std::getline(stat, line)) return false;
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && (line[close + 2] == 'Z' || line[close + 2] == 'X');
}

// Temporary files of writers that were killed before they could clean up: theirs alone (this
// host, this user, a regular file), and only once their process has gone.
void removeAbandonedTemporaryFiles(const std::filesystem::path& folder) {
    const std::string host = hostName();
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
        const std::string name = entry.path().filename().string();
        const pid_t pid = writerOf(name, host);
        if (pid <= 0 || pid == ::getpid()) continue;
        struct stat st {};
        if (::lstat(entry.path().c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::getuid()) continue;
        if (hasExited(pid)) ::unlink(entry.path().c_str());
    }
}

mode_t currentUmask() {
    // umask can only be read by setting it; the value is put straight back.
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return mask;
}

} // namespace

void AudioFileWriter::checkTarget() const {
    struct stat target {};
    if (::stat(target_.c_str(), &target) != 0) return;   // nothing there (or a dangling link): nothing to lose
    if (S_ISDIR(target.st_mode)) throw Error(fmt::format("{}: is a folder, not a file name", target_.string()));
    if (!S_ISREG(target.st_mode))
        throw Error(fmt::format("{}: is {}, not a regular file; only regular files are replaced", target_.string(),
                                kindOf(target.st_mode)));
    for (const auto& input : inputs_) {
        struct stat in {};
        if (::stat(input.c_str(), &in) == 0 && in.st_dev == target.st_dev && in.st_ino == target.st_ino)
            throw Error(fmt::format("{}: is the same file as the input {}; writing it would destroy the input",
                                    target_.string(), input.string()));
    }
}

AudioFileWriter::AudioFileWriter(std::filesystem::path target, int sampleRate, int channelCount,
                                 const std::vector<std::filesystem::path>& inputs)
    : target_(std::move(target)), inputs_(inputs), channelCount_(channelCount) {
    checkTarget();
    if (sampleRate <= 0 || channelCount <= 0)
        throw Error(fmt::format("{}: cannot write {} channels at {} Hz", target_.string(), channelCount, sampleRate));

    // The temporary file sits in the target's folder so that the final rename stays on one file system.
    const auto folder = target_.has_parent_path() ? target_.parent_path() : std::filesystem::path(".");
    removeAbandonedTemporaryFiles(folder);
    // A long target name is shortened so that the temporary name stays within a file name's limit.
    const std::string shown = target_.filename().string().substr(0, 100);
    std::string pattern =
        (folder / fmt::format(".{}{}{}-{}-XXXXXX", shown, temporaryMarker, hostName(), ::getpid())).string();
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
    // What the target is may have changed while the samples were written.
    try {
        checkTarget();
    } catch (const Error&) {
        ::unlink(temporaryPath_.c_str());
        temporaryPath_.clear();
        throw;
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
