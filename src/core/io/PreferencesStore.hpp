#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tarn {

// The user's preferences: one JSON document per key ("Tarn.savedPresets.v1", ...) stored as
// <key>.json in one folder. Writes are atomic: the new document goes to a temporary file in
// the same folder, is flushed to disk and renamed over the old one, so a crash at any moment
// leaves either the previous or the new document, never a torn one. Readers never delete or
// rewrite a file, whatever it holds.
class PreferencesStore {
public:
    struct Error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    explicit PreferencesStore(std::filesystem::path directory);

    // $TARN_CONFIG_DIR when set, else $XDG_CONFIG_HOME/tarn, else ~/.config/tarn.
    static std::filesystem::path defaultDirectory();
    static PreferencesStore standard() { return PreferencesStore(defaultDirectory()); }

    const std::filesystem::path& directory() const { return directory_; }
    std::filesystem::path pathFor(std::string_view key) const;

    // No document the desk writes comes near this (song memory at full capacity is tens of
    // megabytes); a larger file is not one of them and is not read into memory.
    static constexpr std::size_t maxDocumentBytes = std::size_t(256) << 20;

    // The stored bytes, or none when nothing is stored under the key. Throws Error (naming the
    // file) when the file exists but cannot be read or is larger than maxDocumentBytes.
    std::optional<std::string> data(std::string_view key) const;

    // Replaces the document atomically, creating the folder when needed. Throws Error (naming
    // the file and the reason) and leaves the previous document intact when anything fails.
    void setData(std::string_view key, std::string_view bytes);

    // Serialises and stores a JSON value. A value holding a non-finite number cannot be written
    // faithfully, so it is refused with Error before anything touches the disk.
    void setJSON(std::string_view key, const nlohmann::json& value);

    // Removes the document; nothing happens when there is none.
    void remove(std::string_view key);

    // Moves a document that no longer decodes out of the way (to <key>.unreadable-<time>.json)
    // so that a writer can start afresh without destroying what the user had. Returns the new
    // path, or none when there was no document.
    std::optional<std::filesystem::path> setAside(std::string_view key);

private:
    std::filesystem::path directory_;
};

} // namespace tarn
