#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

// The catalogue of measured headphone corrections that ships with Tarn (data/profiles/
// catalog.json, installed to share/tarn/profiles). It is read on first use, once, and never
// changes afterwards, so the profiles it hands out stay valid for the catalogue's lifetime.
//
// The profiles come from several measurement sources (measurementProvider), and one model may
// be there once per source: each is its own profile with its own id, and lists show them side
// by side, the featured one first.
//
// Brands are the maker words in front of the model ("Dan Clark Audio" in "Dan Clark Audio
// Ether 2"), one brand whichever sources measured it. Search works the way people type: case
// and accents are ignored, letters and digits split words ("dt770" is "dt 770"), and every
// typed word must match the start of a word of the brand, the model, the measurement source
// or the wear style ("crinacle", "in-ear").
class BundledProfileCatalog {
public:
    // The catalogue cannot be found or does not hold valid profiles. The message says where it
    // looked or what is wrong with the file.
    struct LoadError : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    static constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

    // The shipped catalogue, found through locateCatalogFile().
    static const BundledProfileCatalog& shared();

    // The catalogue file: $TARN_DATA_DIR/profiles/catalog.json when TARN_DATA_DIR is set (and
    // nowhere else then), else the first that exists of: share/tarn next to the program's
    // installation prefix, the source tree's data folder, the configured install folder.
    // Throws LoadError naming every place it looked.
    static std::filesystem::path locateCatalogFile();

    BundledProfileCatalog(); // the shipped catalogue, located on first use
    explicit BundledProfileCatalog(std::filesystem::path catalogFile);
    ~BundledProfileCatalog();
    BundledProfileCatalog(const BundledProfileCatalog&) = delete;
    BundledProfileCatalog& operator=(const BundledProfileCatalog&) = delete;

    // Every query below loads the catalogue on first use and throws LoadError if it cannot.
    // Loading is thread-safe; a failed load is tried again on the next call.

    const std::vector<HeadphoneProfile>& profiles() const; // in file order
    const std::string& source() const;                     // the file's credit line
    std::filesystem::path file() const;

    const HeadphoneProfile* profile(std::string_view id) const; // nullptr when unknown

    std::vector<std::string> brands() const; // alphabetical, ignoring case and accents
    // In alphabetical order with numbers compared by value; one model from several sources is
    // listed once per source, the featured first, then by source.
    std::vector<const HeadphoneProfile*> models(std::string_view brand) const;
    std::vector<const HeadphoneProfile*> featured() const;

    // Best match first: exact names, then names that begin with the text, then names that hold
    // every word, then profiles that needed their source or wear style to match; featured
    // profiles first among equals, then the order models() uses. An empty text (or one without
    // letters or digits) gives the featured profiles.
    std::vector<const HeadphoneProfile*> search(std::string_view text, std::size_t limit = unlimited) const;

    // The maker part of a model name, and the rest.
    static std::string_view brandOf(std::string_view modelName);
    static std::string_view modelOf(std::string_view modelName);

private:
    struct Index;
    const Index& index() const;

    std::optional<std::filesystem::path> file_;
    mutable std::mutex loadMutex_;
    mutable std::unique_ptr<const Index> owned_;
    mutable std::atomic<const Index*> loaded_{nullptr};
};

} // namespace tarn
