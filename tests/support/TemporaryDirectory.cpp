#include "support/TemporaryDirectory.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace tarn::test {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::vector<std::string> TemporaryDirectory::entries() const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(path_)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::filesystem::path writeText(const std::filesystem::path& path, const std::string& text) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

} // namespace tarn::test
