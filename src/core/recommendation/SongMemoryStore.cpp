#include "core/recommendation/SongMemoryStore.hpp"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cwctype>
#include <limits>
#include <stdexcept>

#include <locale.h>
#include <openssl/evp.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/io/JsonCodecs.hpp"
#include "core/io/PreferencesStore.hpp"
#include "core/recommendation/SongMemoryCapacity.hpp"

namespace tarn {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// ---- Text: the identity of a song must not depend on letter case or stray white space. ----

std::u32string decodeUtf8(std::string_view s) {
    std::u32string out;
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char c = s[i];
        int length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        char32_t cp = length == 1 ? c : length == 2 ? c & 0x1F : length == 3 ? c & 0x0F : c & 0x07;
        bool valid = length > 0 && i + length <= s.size();
        for (int k = 1; valid && k < length; ++k) {
            const unsigned char cc = s[i + k];
            valid = (cc >> 6) == 0x2;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if (!valid) { // keep undecodable bytes as they are (Latin-1 reading), never drop them
            out.push_back(c);
            ++i;
            continue;
        }
        out.push_back(cp);
        i += length;
    }
    return out;
}

std::string encodeUtf8(std::u32string_view s) {
    std::string out;
    for (char32_t cp : s) {
        if (cp < 0x80) {
            out.push_back(char(cp));
        } else if (cp < 0x800) {
            out.push_back(char(0xC0 | (cp >> 6)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(char(0xE0 | (cp >> 12)));
            out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(char(0xF0 | (cp >> 18)));
            out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

// Unicode white space and line breaks (categories Zs, Zl, Zp and the control breaks).
bool isWhiteSpaceOrNewline(char32_t cp) {
    return (cp >= 0x09 && cp <= 0x0D) || cp == 0x20 || cp == 0x85 || cp == 0xA0 || cp == 0x1680 ||
           (cp >= 0x2000 && cp <= 0x200A) || cp == 0x2028 || cp == 0x2029 || cp == 0x202F || cp == 0x205F ||
           cp == 0x3000;
}

locale_t unicodeLocale() {
    static const locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
        return l ? l : newlocale(LC_CTYPE_MASK, "C", locale_t(0));
    }();
    return locale;
}

std::string trimmedLowercased(std::string_view text) {
    std::u32string s = decodeUtf8(text);
    auto first = std::find_if_not(s.begin(), s.end(), isWhiteSpaceOrNewline);
    auto last = std::find_if_not(s.rbegin(), s.rend(), isWhiteSpaceOrNewline).base();
    std::u32string out = first < last ? std::u32string(first, last) : std::u32string();
    for (char32_t& cp : out) cp = char32_t(towlower_l(wint_t(cp), unicodeLocale()));
    return encodeUtf8(out);
}

std::string truncatedToCharacters(const std::string& text, std::size_t count) {
    const auto s = decodeUtf8(text);
    if (s.size() <= count) return text;
    return encodeUtf8(std::u32string_view(s).substr(0, count));
}

std::size_t characterCount(const std::string& text) { return decodeUtf8(text).size(); }

// ---- The file's form. ----

std::string base64(const std::vector<std::int8_t>& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
    out.resize(std::size_t(std::max(n, 0)));
    return out;
}

std::vector<std::int8_t> fromBase64(const std::string& text) {
    if (text.size() % 4 != 0) throw DecodingError("timeline is not valid base64");
    std::vector<std::int8_t> out(text.size() / 4 * 3);
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()), int(text.size()));
    if (n < 0) throw DecodingError("timeline is not valid base64");
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') ++padding;
    if (text.size() > 1 && text[text.size() - 2] == '=') ++padding;
    out.resize(std::size_t(n) - padding);
    return out;
}

json numbers(const std::vector<double>& values) {
    json out = json::array();
    for (double v : values) out.push_back(std::isfinite(v) ? json(v) : json(nullptr));
    return out;
}

// A damaged value inside an entry is kept as NaN so that the memory classifies as broken and
// the user can sweep it, rather than failing the whole file.
std::vector<double> numbersFrom(const json& value) {
    std::vector<double> out;
    if (!value.is_array()) return out;
    for (const auto& v : value) out.push_back(v.is_number() ? v.get<double>() : std::numeric_limits<double>::quiet_NaN());
    return out;
}

json encode(const SongMemory& m) {
    json j;
    j["profileDb"] = numbers(m.profileDb);
    j["curveDb"] = numbers(m.curveDb);
    if (m.timeline) j["timeline"] = base64(*m.timeline);
    if (m.genre) j["genre"] = *m.genre;
    j["playCount"] = m.playCount;
    j["lastPlayedAt"] = m.lastPlayedAt;
    if (m.expectedDurationSeconds) j["expectedDurationSeconds"] = *m.expectedDurationSeconds;
    return j;
}

SongMemory decode(const json& j) {
    if (!j.is_object()) throw DecodingError("a song memory is not a JSON object");
    SongMemory m;
    m.profileDb = numbersFrom(j.value("profileDb", json()));
    m.curveDb = numbersFrom(j.value("curveDb", json()));
    if (j.contains("timeline")) m.timeline = fromBase64(j.at("timeline").get<std::string>());
    if (j.contains("genre")) m.genre = j.at("genre").get<std::string>();
    const json& plays = j.value("playCount", json());
    m.playCount = plays.is_number_integer() ? plays.get<int>() : 0;
    const json& played = j.value("lastPlayedAt", json());
    m.lastPlayedAt = played.is_number() ? played.get<Date>() : Date{std::numeric_limits<double>::quiet_NaN()};
    const json& duration = j.value("expectedDurationSeconds", json());
    if (!duration.is_null())
        m.expectedDurationSeconds = duration.is_number() ? duration.get<double>() : std::numeric_limits<double>::quiet_NaN();
    return m;
}

bool allFinite(const std::vector<double>& values, std::size_t count) {
    return values.size() == count && std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); });
}

} // namespace

int SongMemoryStore::defaultMaxEntries() { return SongMemoryCapacity::defaultMaxEntries(); }

SongMemoryStore::SongMemoryStore(const fs::path& fileURL, int maxEntries)
    : maxEntries_(std::max(maxEntries, 1)), fileURL_(fs::absolute(fileURL)),
      persistQueue_("sorvi.songmemory.persist", "tarn-songmemory") {
    if (fileURL_.extension() != ".json" || fileURL_.stem().empty())
        throw std::invalid_argument(fmt::format("song memory file {} must be a .json file", fileURL_.string()));
    load();
}

SongMemoryStore::~SongMemoryStore() { flush(); }

fs::path SongMemoryStore::defaultFileURL() {
    // XDG: a relative XDG_DATA_HOME is invalid and must be ignored.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/')
        return fs::path(xdg) / "tarn" / "SongMemories.json";
    if (const char* home = std::getenv("HOME"); home && *home)
        return fs::path(home) / ".local" / "share" / "tarn" / "SongMemories.json";
    throw std::runtime_error("cannot find the data folder: neither XDG_DATA_HOME nor HOME is set");
}

std::string SongMemoryStore::key(std::string_view title, std::string_view artist) {
    const std::string identity = trimmedLowercased(title) + "|" + trimmedLowercased(artist);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(identity.data(), identity.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 is not available");
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

void SongMemoryStore::load() {
    std::optional<std::string> bytes;
    try {
        bytes = PreferencesStore(fileURL_.parent_path()).data(fileURL_.stem().string());
    } catch (const std::exception& e) {
        lastError_ = e.what();
        fileIsUnreadable_ = true;
        return;
    }
    if (!bytes) return;
    try {
        const json document = json::parse(*bytes);
        if (!document.is_object()) throw DecodingError("the file does not hold a JSON object");
        std::map<std::string, SongMemory> loaded;
        for (const auto& [key, value] : document.items()) loaded[key] = decode(value);
        cache_ = std::move(loaded);
    } catch (const std::exception& e) {
        lastError_ = fmt::format("cannot read {}: {}", fileURL_.string(), e.what());
        fileIsUnreadable_ = true;
    }
}

std::optional<SongMemory> SongMemoryStore::memory(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto it = cache_.find(key);
    if (it == cache_.end()) return std::nullopt;
    return it->second;
}

int SongMemoryStore::count() const {
    std::lock_guard lock(mutex_);
    return int(cache_.size());
}

std::vector<double> SongMemoryStore::sanitized(const std::vector<double>& values, std::size_t count, Range range) {
    std::vector<double> out(count, 0.0);
    for (std::size_t i = 0; i < std::min(count, values.size()); ++i)
        out[i] = std::isfinite(values[i]) ? std::clamp(values[i], range.lower, range.upper) : 0.0;
    return out;
}

std::vector<std::int8_t> SongMemoryStore::mergedTimeline(const std::optional<std::vector<std::int8_t>>& old,
                                                         const std::vector<std::int8_t>& incoming, double newWeight,
                                                         int bandCount) {
    if (bandCount < 1) return {};
    const double w = std::isfinite(newWeight) ? std::clamp(newWeight, 0.0, 1.0) : 1.0;
    const std::size_t oldSeconds = old ? old->size() / bandCount : 0;
    const std::size_t newSeconds = incoming.size() / bandCount;
    const std::size_t seconds = std::min<std::size_t>(std::max(oldSeconds, newSeconds), maxTimelineSeconds);
    std::vector<std::int8_t> out(seconds * bandCount, SongMemory::noDataSentinel);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const std::size_t second = i / bandCount;
        const std::int8_t o = second < oldSeconds ? (*old)[i] : SongMemory::noDataSentinel;
        const std::int8_t n = second < newSeconds ? incoming[i] : SongMemory::noDataSentinel;
        if (o == SongMemory::noDataSentinel) out[i] = n;
        else if (n == SongMemory::noDataSentinel) out[i] = o;
        else out[i] = std::int8_t(std::clamp(std::round(o + w * (n - o)), -127.0, 127.0));
    }
    return out;
}

void SongMemoryStore::record(const std::string& key, const std::vector<double>& profileDb,
                             const std::vector<double>& curveDb, const std::optional<std::vector<std::int8_t>>& timeline,
                             const std::optional<std::string>& genre, std::optional<double> expectedDurationSeconds,
                             std::optional<Date> playedAt) {
    const auto profile = sanitized(profileDb, SongMemory::bandCount, profileRangeDb);
    const auto curve = sanitized(curveDb, SongMemory::bandCount, profileRangeDb);
    {
        std::lock_guard lock(mutex_);
        auto it = cache_.find(key);
        // A broken memory cannot be blended with; the new play starts it afresh.
        if (it != cache_.end() && classify(it->second) == SongMemoryHealth::broken) {
            cache_.erase(it);
            it = cache_.end();
        }
        SongMemory& m = cache_[key];
        if (it == cache_.end()) {
            m.profileDb = profile;
            m.curveDb = curve;
            if (timeline) m.timeline = mergedTimeline(std::nullopt, *timeline, 1.0);
            m.playCount = 1;
        } else {
            m.playCount += 1;
            // A running mean over the first plays, then a moving average that keeps learning.
            const double w = 1.0 / std::min(m.playCount, profileConvergencePlays);
            for (int i = 0; i < SongMemory::bandCount; ++i) {
                m.profileDb[i] += w * (profile[i] - m.profileDb[i]);
                m.curveDb[i] += w * (curve[i] - m.curveDb[i]);
            }
            if (timeline) m.timeline = mergedTimeline(m.timeline, *timeline, w);
        }
        if (genre && !genre->empty()) m.genre = truncatedToCharacters(*genre, maxGenreLength);
        if (expectedDurationSeconds && std::isfinite(*expectedDurationSeconds) && *expectedDurationSeconds > 0)
            m.expectedDurationSeconds = expectedDurationSeconds;
        m.lastPlayedAt = playedAt.value_or(Date::now());

        while (int(cache_.size()) > maxEntries_) {
            auto oldest = cache_.end();
            for (auto c = cache_.begin(); c != cache_.end(); ++c) {
                if (c->first == key) continue;
                // NaN dates (damaged entries) go first.
                const double t = c->second.lastPlayedAt.secondsSinceReferenceDate;
                if (oldest == cache_.end() || std::isnan(t) ||
                    (!std::isnan(oldest->second.lastPlayedAt.secondsSinceReferenceDate) &&
                     t < oldest->second.lastPlayedAt.secondsSinceReferenceDate)) {
                    oldest = c;
                    if (std::isnan(t)) break;
                }
            }
            if (oldest == cache_.end()) break;
            cache_.erase(oldest);
        }
    }
    scheduleSave();
}

void SongMemoryStore::removeMemories(const std::set<std::string>& keys) {
    bool removed = false;
    {
        std::lock_guard lock(mutex_);
        for (const auto& key : keys) removed |= cache_.erase(key) > 0;
    }
    if (removed) scheduleSave();
}

SongMemoryHealth SongMemoryStore::classify(const SongMemory& m, Date now) {
    const bool wellFormed =
        allFinite(m.profileDb, SongMemory::bandCount) && allFinite(m.curveDb, SongMemory::bandCount) &&
        (!m.timeline || (m.timeline->size() % SongMemory::bandCount == 0 &&
                         m.timeline->size() <= std::size_t(maxTimelineSeconds) * SongMemory::bandCount)) &&
        (!m.genre || characterCount(*m.genre) <= maxGenreLength) && m.playCount >= 1 &&
        std::isfinite(m.lastPlayedAt.secondsSinceReferenceDate) &&
        m.lastPlayedAt.secondsSinceReferenceDate <= now.secondsSinceReferenceDate + maxFuturePlaySeconds &&
        (!m.expectedDurationSeconds || (std::isfinite(*m.expectedDurationSeconds) && *m.expectedDurationSeconds > 0));
    if (!wellFormed) return SongMemoryHealth::broken;
    return m.isSufficientlyCovered() ? SongMemoryHealth::healthy : SongMemoryHealth::incomplete;
}

std::map<std::string, SongMemoryHealth> SongMemoryStore::audit() const {
    std::lock_guard lock(mutex_);
    std::map<std::string, SongMemoryHealth> out;
    const Date now = Date::now();
    for (const auto& [key, memory] : cache_) out[key] = classify(memory, now);
    return out;
}

SongMemorySweepReport SongMemoryStore::sweep(bool removeBroken, std::optional<Date> removeIncompleteIdleBefore,
                                             const std::set<std::string>& protecting) {
    SongMemorySweepReport report;
    const Date now = Date::now();
    {
        std::lock_guard lock(mutex_);
        for (auto it = cache_.begin(); it != cache_.end();) {
            const bool isProtected = protecting.contains(it->first);
            bool remove = false;
            switch (classify(it->second, now)) {
            case SongMemoryHealth::healthy: ++report.healthyKept; break;
            case SongMemoryHealth::broken:
                remove = removeBroken && !isProtected;
                ++(remove ? report.brokenRemoved : report.brokenKept);
                break;
            case SongMemoryHealth::incomplete:
                remove = removeIncompleteIdleBefore && !isProtected &&
                         it->second.lastPlayedAt < *removeIncompleteIdleBefore;
                ++(remove ? report.incompleteRemoved : report.incompleteSpared);
                break;
            }
            it = remove ? cache_.erase(it) : std::next(it);
        }
    }
    if (report.totalRemoved() > 0) scheduleSave();
    return report;
}

void SongMemoryStore::scheduleSave() {
    // Writes coalesce: one pending write carries every change made before it runs.
    if (savePending_.exchange(true)) return;
    persistQueue_.async([this] { save(); });
}

void SongMemoryStore::save() {
    savePending_ = false;
    std::map<std::string, SongMemory> memories;
    bool setAsideFirst = false;
    {
        // Copying is much quicker than encoding: callers are not kept waiting for the JSON.
        std::lock_guard lock(mutex_);
        memories = cache_;
        setAsideFirst = fileIsUnreadable_ && !setAsidePath_;
    }
    json document = json::object();
    for (const auto& [key, memory] : memories) document[key] = encode(memory);
    const std::string bytes = document.dump();
    try {
        PreferencesStore files(fileURL_.parent_path());
        const std::string name = fileURL_.stem().string();
        std::optional<fs::path> aside;
        if (setAsideFirst) aside = files.setAside(name);
        files.setData(name, bytes);
        std::lock_guard lock(mutex_);
        if (setAsideFirst) {
            setAsidePath_ = aside.value_or(fs::path());
            fileIsUnreadable_ = false;
        }
        lastError_.reset();
    } catch (const std::exception& e) {
        std::lock_guard lock(mutex_);
        lastError_ = e.what();
    }
}

void SongMemoryStore::flush() {
    persistQueue_.sync([] {});
}

std::optional<std::string> SongMemoryStore::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

std::optional<fs::path> SongMemoryStore::setAsidePath() const {
    std::lock_guard lock(mutex_);
    return setAsidePath_;
}

} // namespace tarn
