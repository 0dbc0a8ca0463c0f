#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::test {

// A fresh folder under the system's temporary directory, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }
    // Names of the entries in the folder (hidden ones included), sorted.
    std::vector<std::string> entries() const;

private:
    std::filesystem::path path_;
};

// The whole file, byte for byte; empty when it cannot be read.
std::string readText(const std::filesystem::path& path);
// Writes the bytes, creating the parent folders; returns the path.
std::filesystem::path writeText(const std::filesystem::path& path, const std::string& text);

} // namespace tarn::test
