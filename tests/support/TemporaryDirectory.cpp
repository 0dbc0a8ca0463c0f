#include "support/TemporaryDirectory.hpp"

#include <algorithm>
#include <cstdlib>
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

} // namespace tarn::test
