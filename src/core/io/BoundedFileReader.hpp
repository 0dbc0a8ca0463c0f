#pragma once

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn {

// Reads a whole file that the user or the system hands over, up to a size limit, so that a
// wrong path (a multi-gigabyte recording, /dev/zero, a pipe that never ends) costs a clear
// message instead of all of memory. Pipes and devices are read like files, never trusted for
// their size.
struct BoundedFileReader {
    // Every message names the file.
    class Error : public std::runtime_error {
    public:
        explicit Error(const std::string& message, int errorNumber = 0)
            : std::runtime_error(message), errorNumber_(errorNumber) {}
        // The errno of a failed open or read; 0 for a file refused for its size or kind.
        int errorNumber() const { return errorNumber_; }

    private:
        int errorNumber_;
    };

    // The bytes of `path`; throws Error when it cannot be opened or read, is a folder, or holds
    // more than `maxBytes` (`description` says what the file was expected to be: "a parametric
    // EQ file").
    static std::string read(const std::filesystem::path& path, std::size_t maxBytes, std::string_view description);

    // "1 MiB", "64 KiB", "1500 bytes": sizes as people read them.
    static std::string sizeText(std::size_t bytes);
};

} // namespace tarn
