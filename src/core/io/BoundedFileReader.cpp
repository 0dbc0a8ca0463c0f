#include "core/io/BoundedFileReader.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace tarn {

std::string BoundedFileReader::sizeText(std::size_t bytes) {
    if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) return fmt::format("{} MiB", bytes >> 20);
    if (bytes >= (1u << 10) && bytes % (1u << 10) == 0) return fmt::format("{} KiB", bytes >> 10);
    return fmt::format("{} bytes", bytes);
}

std::string BoundedFileReader::read(const std::filesystem::path& path, std::size_t maxBytes,
                                    std::string_view description) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        throw Error(fmt::format("{}: cannot open: {}", path.string(), std::strerror(error)), error);
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};

    struct stat st {};
    if (::fstat(fd, &st) == 0) {
        if (S_ISDIR(st.st_mode)) throw Error(fmt::format("{}: is a folder, not a file", path.string()));
        // A regular file says its size up front; anything else is found out by reading.
        if (S_ISREG(st.st_mode) && static_cast<std::uintmax_t>(st.st_size) > maxBytes)
            throw Error(fmt::format("{}: {} is larger than {}, too large for {}", path.string(),
                                    sizeText(static_cast<std::size_t>(st.st_size)), sizeText(maxBytes), description));
    }

    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EISDIR) throw Error(fmt::format("{}: is a folder, not a file", path.string()));
            const int error = errno;
            throw Error(fmt::format("{}: cannot read: {}", path.string(), std::strerror(error)), error);
        }
        if (n == 0) break;
        if (bytes.size() + static_cast<std::size_t>(n) > maxBytes)
            throw Error(fmt::format("{}: larger than {}, too large for {}", path.string(), sizeText(maxBytes),
                                    description));
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    return bytes;
}

} // namespace tarn
