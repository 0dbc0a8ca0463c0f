#include "core/io/PreferencesStore.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "core/io/BoundedFileReader.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

namespace fs = std::filesystem;

namespace {

std::string errnoText(int error) { return std::strerror(error); }

// Keys become file names: refuse anything that could escape the folder or hide the file.
void validateKey(std::string_view key) {
    const bool bad = key.empty() || key.front() == '.' || key.find('/') != std::string_view::npos ||
                     key.find('\0') != std::string_view::npos;
    if (bad) throw PreferencesStore::Error(fmt::format("\"{}\" is not a valid preferences key", key));
}

std::string tempPrefix(std::string_view key) { return fmt::format(".{}.json.tmp-", key); }

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

void writeAll(int fd, std::string_view bytes, const fs::path& path) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw PreferencesStore::Error(fmt::format("cannot write {}: {}", path.string(), errnoText(errno)));
        }
        done += static_cast<std::size_t>(n);
    }
}

void syncDirectory(const fs::path& directory) {
    FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0 || ::fsync(dir.get()) != 0)
        throw PreferencesStore::Error(
            fmt::format("cannot flush folder {} to disk: {}", directory.string(), errnoText(errno)));
}

// A writer killed between creating its temporary file and renaming it leaves the file behind;
// once that process is gone the file is garbage.
void removeAbandonedTempFiles(const fs::path& directory, std::string_view key) {
    const std::string prefix = tempPrefix(key);
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(directory, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) != 0) continue;
        const long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
        if (pid <= 0 || pid == ::getpid()) continue;
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) fs::remove(entry.path(), ec);
    }
}

bool holdsNonFiniteNumber(const nlohmann::json& value) {
    if (value.is_number_float()) return !std::isfinite(value.get<double>());
    if (value.is_structured())
        for (const auto& child : value)
            if (holdsNonFiniteNumber(child)) return true;
    return false;
}

} // namespace

PreferencesStore::PreferencesStore(fs::path directory) : directory_(std::move(directory)) {}

fs::path PreferencesStore::defaultDirectory() {
    if (const char* dir = std::getenv("TARN_CONFIG_DIR"); dir && *dir) return fs::path(dir);
    // XDG: a relative XDG_CONFIG_HOME is invalid and must be ignored.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') return fs::path(xdg) / "tarn";
    if (const char* home = std::getenv("HOME"); home && *home) return fs::path(home) / ".config" / "tarn";
    throw Error("cannot find the preferences folder: neither XDG_CONFIG_HOME nor HOME is set");
}

fs::path PreferencesStore::pathFor(std::string_view key) const {
    validateKey(key);
    return directory_ / (std::string(key) + ".json");
}

std::optional<std::string> PreferencesStore::data(std::string_view key) const {
    const fs::path path = pathFor(key);
    try {
        return BoundedFileReader::read(path, maxDocumentBytes, "a preferences document");
    } catch (const BoundedFileReader::Error& e) {
        if (e.errorNumber() == ENOENT) return std::nullopt;
        throw Error(e.what());
    }
}

void PreferencesStore::setData(std::string_view key, std::string_view bytes) {
    const fs::path path = pathFor(key);
    std::error_code ec;
    fs::create_directories(directory_, ec);
    if (ec) throw Error(fmt::format("cannot create folder {}: {}", directory_.string(), ec.message()));

    const fs::path temp = directory_ / fmt::format("{}{}-{}", tempPrefix(key), ::getpid(), UUID::random().string());
    FileDescriptor fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.get() < 0)
        throw Error(fmt::format("cannot save {}: cannot create a file in {}: {}", path.string(),
                                directory_.string(), errnoText(errno)));
    try {
        writeAll(fd.get(), bytes, path);
        if (::fsync(fd.get()) != 0)
            throw Error(fmt::format("cannot flush {} to disk: {}", path.string(), errnoText(errno)));
        if (::close(fd.release()) != 0)
            throw Error(fmt::format("cannot save {}: {}", path.string(), errnoText(errno)));
        if (::rename(temp.c_str(), path.c_str()) != 0)
            throw Error(fmt::format("cannot replace {}: {}", path.string(), errnoText(errno)));
    } catch (...) {
        ::unlink(temp.c_str());
        throw;
    }
    // The rename is only durable once the folder's entry is on disk too.
    syncDirectory(directory_);
    removeAbandonedTempFiles(directory_, key);
}

void PreferencesStore::setJSON(std::string_view key, const nlohmann::json& value) {
    if (holdsNonFiniteNumber(value))
        throw Error(fmt::format("cannot save \"{}\": it holds a number that is not finite", key));
    setData(key, value.dump());
}

void PreferencesStore::remove(std::string_view key) {
    const fs::path path = pathFor(key);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        throw Error(fmt::format("cannot remove {}: {}", path.string(), errnoText(errno)));
}

std::optional<fs::path> PreferencesStore::setAside(std::string_view key) {
    const fs::path path = pathFor(key);
    if (!fs::exists(path)) return std::nullopt;
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    fs::path aside = directory_ / fmt::format("{}.unreadable-{}.json", key, stamp);
    for (int n = 2; fs::exists(aside); ++n) aside = directory_ / fmt::format("{}.unreadable-{}-{}.json", key, stamp, n);
    if (::rename(path.c_str(), aside.c_str()) != 0)
        throw Error(fmt::format("cannot move {} aside: {}", path.string(), errnoText(errno)));
    syncDirectory(directory_);
    return aside;
}

} // namespace tarn
