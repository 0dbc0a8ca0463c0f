#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/recommendation/SerialQueue.hpp"
#include "core/recommendation/SongMemory.hpp"
#include "core/recommendation/SongMemoryHealth.hpp"
#include "core/recommendation/SongMemorySweepReport.hpp"

namespace tarn {

// The songs AI Tune has learnt, kept in "SongMemories.json". Every change is written to disk on
// the store's own worker ("sorvi.songmemory.persist"), atomically: a crash leaves the previous or
// the new file, never a torn one. A file that cannot be read is moved aside (never deleted)
// before the first write replaces it.
//
// All members may be called from any thread except the audio threads.
class SongMemoryStore {
public:
    struct Range {
        double lower;
        double upper;
    };

    static constexpr int maxTimelineSeconds = 600;
    static constexpr double fullPlayCoverage = 0.9;
    static constexpr int profileConvergencePlays = 8;
    static constexpr double quantizationStepDb = 0.5;
    static constexpr Range profileRangeDb{-24.0, 24.0};
    static constexpr std::size_t maxGenreLength = 40; // characters
    static int defaultMaxEntries();                    // by SongMemoryCapacity

    // Reads the file if there is one. `fileURL` must name a ".json" file.
    explicit SongMemoryStore(const std::filesystem::path& fileURL, int maxEntries = defaultMaxEntries());
    // Waits for the last write.
    ~SongMemoryStore();

    // $XDG_DATA_HOME/tarn/SongMemories.json (XDG_DATA_HOME defaults to ~/.local/share).
    static std::filesystem::path defaultFileURL();

    // SHA-256 of the trimmed, lower-cased "title|artist", as 64 lower-case hex digits.
    static std::string key(std::string_view title, std::string_view artist);

    std::optional<SongMemory> memory(const std::string& key) const;

    // Merges one play into the key's memory (creating it on the first play), evicts the least
    // recently played memories beyond capacity and schedules the write. `playedAt` defaults to now.
    void record(const std::string& key, const std::vector<double>& profileDb, const std::vector<double>& curveDb,
                const std::optional<std::vector<std::int8_t>>& timeline, const std::optional<std::string>& genre,
                std::optional<double> expectedDurationSeconds, std::optional<Date> playedAt = std::nullopt);

    void removeMemories(const std::set<std::string>& keys);
    int count() const;
    int maxEntries() const { return maxEntries_; }
    const std::filesystem::path& fileURL() const { return fileURL_; }

    // A play dated more than this after now is a damaged date, not a clock a little ahead: left
    // healthy, it would never count as idle and would outlive every other memory.
    static constexpr double maxFuturePlaySeconds = 86400.0;

    static SongMemoryHealth classify(const SongMemory& memory) { return classify(memory, Date::now()); }
    static SongMemoryHealth classify(const SongMemory& memory, Date now);
    // Health of every memory, by key.
    std::map<std::string, SongMemoryHealth> audit() const;
    // Removes broken memories (when asked) and incomplete ones last played before the given date;
    // protected keys are always kept.
    SongMemorySweepReport sweep(bool removeBroken, std::optional<Date> removeIncompleteIdleBefore,
                                const std::set<std::string>& protecting = {});

    // Blends `incoming` into `old` second by second and band by band with weight `newWeight`;
    // a cell known on one side only keeps that side's value. At most maxTimelineSeconds long.
    static std::vector<std::int8_t> mergedTimeline(const std::optional<std::vector<std::int8_t>>& old,
                                                   const std::vector<std::int8_t>& incoming, double newWeight,
                                                   int bandCount = SongMemory::bandCount);
    // Exactly `count` entries (missing ones 0), non-finite values 0, each clamped into `range`.
    static std::vector<double> sanitized(const std::vector<double>& values, std::size_t count, Range range);

    // Blocks until everything recorded so far is on disk (or failed to get there).
    void flush();
    // The last problem reading or writing the file, if any.
    std::optional<std::string> lastError() const;
    // Where an unreadable file was moved, once it has been.
    std::optional<std::filesystem::path> setAsidePath() const;

private:
    void load();
    void scheduleSave();
    void save();

    int maxEntries_;
    std::filesystem::path fileURL_;
    mutable std::mutex mutex_; // guards everything below except persistQueue_
    std::map<std::string, SongMemory> cache_;
    bool fileIsUnreadable_ = false;
    std::optional<std::string> lastError_;
    std::optional<std::filesystem::path> setAsidePath_;
    std::atomic<bool> savePending_{false};
    // Last member: destroyed first, so its pending write still sees the cache.
    SerialQueue persistQueue_;
};

} // namespace tarn
