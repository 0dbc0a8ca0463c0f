#include "core/profiles/BundledProfileCatalog.hpp"

#include <algorithm>
#include <cstdlib>
#include <unordered_map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/io/BoundedFileReader.hpp"
#include "core/io/JsonCodecs.hpp"
#include "core/profiles/SearchText.hpp"

namespace tarn {

namespace fs = std::filesystem;

namespace {

// The shipped catalogue is about 1.5 MB; room to grow tenfold and more, not to read anything.
constexpr std::size_t maxCatalogueBytes = std::size_t(64) << 20;

// Makers whose name is more than one word; any other maker is the first word of the model name.
// Every measurement source spells its makers this way, so one list serves them all.
constexpr std::string_view kMultiWordMakers[] = {
    "64 Audio",          "Acoustic Research", "Allen & Heath",    "ASTRO Gaming",     "Audio Zenith",
    "Austrian Audio",    "Bang & Olufsen",    "Base Audio",       "Bowers & Wilkins", "Campfire Audio",
    "Cooler Master",     "Cosmic Ears",       "Dan Clark Audio",  "ES Lab",           "Final Audio",
    "Fischer Audio",     "Gold Planar",       "Harman Kardon",    "Kaldas Research",  "Light Harmonic",
    "Little Dot",        "LZ Hi-Fi Audio",    "Mark Levinson",    "Master & Dynamic", "MEE Audio",
    "NS Audio",          "Noble Audio",       "Periodic Audio",   "Rosson Audio Design", "Sivga Audio",
    "Spiral Ear",        "Spirit Torino",     "Status Audio",     "Tin HiFi",         "Ultimate Ears",
    "Vision Ears",       "Warwick Acoustics",
};

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
        if (lower(text[i]) != lower(prefix[i])) return false;
    }
    return true;
}

bool isAllDigits(const std::string& s) { return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; }); }

// Alphabetical, except that numbers compare by value: "HD 58X" < "HD 560S" < "HD 600".
int compareNatural(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        const bool an = isAllDigits(a[i]), bn = isAllDigits(b[i]);
        if (an != bn) return an ? -1 : 1;
        if (an) {
            const auto as = a[i].substr(std::min(a[i].find_first_not_of('0'), a[i].size() - 1));
            const auto bs = b[i].substr(std::min(b[i].find_first_not_of('0'), b[i].size() - 1));
            if (as.size() != bs.size()) return as.size() < bs.size() ? -1 : 1;
            if (int c = as.compare(bs)) return c < 0 ? -1 : 1;
        } else if (int c = a[i].compare(b[i])) {
            return c < 0 ? -1 : 1;
        }
    }
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return 0;
}

std::vector<std::string> splitWhitespace(std::string_view text) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
        const std::size_t start = i;
        while (i < text.size() && !(text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
        if (i > start) words.emplace_back(text.substr(start, i - start));
    }
    return words;
}

std::string joined(const std::vector<std::string>& tokens) {
    std::string out;
    for (const auto& t : tokens) out += t;
    return out;
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// One typed word, prepared for matching.
struct QueryWord {
    std::vector<std::string> tokens;
    std::string compact;
};

// The words a profile offers to a search in one of its fields.
struct SearchWords {
    std::vector<std::string> tokens;       // letter and digit runs, in order
    std::vector<std::string> compactWords; // each space-separated word without punctuation

    static SearchWords of(std::string_view folded) {
        SearchWords out;
        out.tokens = SearchText::tokens(folded);
        for (const auto& word : splitWhitespace(folded)) out.compactWords.push_back(joined(SearchText::tokens(word)));
        return out;
    }

    // The typed word starts one of these words, either as typed without punctuation ("dt770"
    // starts "dt770") or as a run of whole words ending in a prefix ("dt-77" in "dt 770").
    bool matches(const QueryWord& word) const {
        for (const auto& w : compactWords)
            if (startsWith(w, word.compact)) return true;
        const auto& q = word.tokens;
        if (q.size() > tokens.size()) return false;
        for (std::size_t start = 0; start + q.size() <= tokens.size(); ++start) {
            bool ok = true;
            for (std::size_t k = 0; k + 1 < q.size() && ok; ++k) ok = tokens[start + k] == q[k];
            if (ok && startsWith(tokens[start + q.size() - 1], q.back())) return true;
        }
        return false;
    }
};

std::optional<fs::path> executableInstallPrefix() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec || exe.empty()) return std::nullopt;
    return exe.parent_path().parent_path();
}

} // namespace

struct BundledProfileCatalog::Index {
    struct Entry {
        std::string brand;
        std::string brandKey;    // folded, for brand lookups
        SearchWords name;        // brand and model
        SearchWords details;     // who measured it and how it is worn
        std::string fullJoined;  // all of the name's tokens joined
        std::string modelJoined; // the model's tokens joined
        std::size_t naturalRank = 0;
    };

    fs::path file;
    std::string source;
    std::vector<HeadphoneProfile> profiles;
    std::vector<Entry> entries;
    std::unordered_map<std::string, std::size_t> byID;
    std::vector<std::size_t> naturalOrder; // profile indices, alphabetical
    std::vector<std::string> brands;

    static std::unique_ptr<const Index> load(const fs::path& file);
};

std::unique_ptr<const BundledProfileCatalog::Index> BundledProfileCatalog::Index::load(const fs::path& file) {
    std::string text;
    try {
        text = BoundedFileReader::read(file, maxCatalogueBytes, "the headphone catalogue");
    } catch (const BoundedFileReader::Error& e) {
        throw LoadError(fmt::format("cannot read the headphone catalogue: {}", e.what()));
    }

    auto index = std::make_unique<Index>();
    index->file = file;
    try {
        const auto document = nlohmann::json::parse(text);
        const auto& list = jsonread::member(document, "profiles");
        if (!list.is_array()) throw DecodingError("\"profiles\" must be a list");
        if (auto it = document.find("source"); it != document.end() && it->is_string()) index->source = it->get<std::string>();
        index->profiles.reserve(list.size());
        for (std::size_t i = 0; i < list.size(); ++i) {
            try {
                index->profiles.push_back(list[i].get<HeadphoneProfile>());
            } catch (const std::exception& e) {
                throw DecodingError(fmt::format("profile {}: {}", i + 1, e.what()));
            }
        }
    } catch (const std::exception& e) {
        throw LoadError(fmt::format("the headphone catalogue {} is damaged: {}", file.string(), e.what()));
    }
    if (index->profiles.empty()) throw LoadError(fmt::format("the headphone catalogue {} holds no profiles", file.string()));

    // How often each spelling of a brand is used, by folded brand.
    std::unordered_map<std::string, std::unordered_map<std::string, std::size_t>> spellingsByKey;
    for (std::size_t i = 0; i < index->profiles.size(); ++i) {
        const auto& p = index->profiles[i];
        if (!index->byID.emplace(p.id, i).second)
            throw LoadError(fmt::format("the headphone catalogue {} lists the id \"{}\" twice", file.string(), p.id));
        Entry e;
        e.brand = std::string(brandOf(p.modelName));
        e.brandKey = SearchText::fold(e.brand);
        e.name = SearchWords::of(SearchText::fold(p.modelName));
        std::string details = p.measurementProvider ? SearchText::fold(*p.measurementProvider) : std::string();
        if (p.wearStyle) details.append(" ").append(toString(*p.wearStyle));
        e.details = SearchWords::of(details);
        e.fullJoined = joined(e.name.tokens);
        e.modelJoined = SearchText::compact(modelOf(p.modelName));
        ++spellingsByKey[e.brandKey][e.brand];
        index->entries.push_back(std::move(e));
    }

    auto& order = index->naturalOrder;
    order.resize(index->profiles.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const auto& pa = index->profiles[a];
        const auto& pb = index->profiles[b];
        if (int c = compareNatural(index->entries[a].name.tokens, index->entries[b].name.tokens)) return c < 0;
        // One model measured by several sources: the featured measurement leads, the others
        // follow by source, so the order never depends on where the file happens to list them.
        if (pa.isFeatured != pb.isFeatured) return pa.isFeatured;
        if (pa.measurementProvider != pb.measurementProvider) return pa.measurementProvider < pb.measurementProvider;
        if (int c = pa.modelName.compare(pb.modelName)) return c < 0;
        return pa.id < pb.id;
    });
    for (std::size_t rank = 0; rank < order.size(); ++rank) index->entries[order[rank]].naturalRank = rank;

    // A brand is listed once however many sources measured it, under the spelling most of its
    // profiles use (the first in byte order on a tie), whatever order the file lists them in.
    std::vector<std::pair<std::string, std::string>> brands;
    for (const auto& [key, spellings] : spellingsByKey) {
        const auto chosen = std::min_element(spellings.begin(), spellings.end(), [](const auto& a, const auto& b) {
            return a.second != b.second ? a.second > b.second : a.first < b.first;
        });
        brands.emplace_back(key, chosen->first);
    }
    std::sort(brands.begin(), brands.end());
    for (auto& [key, brand] : brands) index->brands.push_back(std::move(brand));
    return index;
}

const BundledProfileCatalog& BundledProfileCatalog::shared() {
    static const BundledProfileCatalog catalog;
    return catalog;
}

fs::path BundledProfileCatalog::locateCatalogFile() {
    const fs::path relative = fs::path("profiles") / "catalog.json";
    if (const char* dir = std::getenv("TARN_DATA_DIR"); dir && *dir) {
        const fs::path file = fs::path(dir) / relative;
        if (!fs::is_regular_file(file))
            throw LoadError(fmt::format("the headphone catalogue is not in TARN_DATA_DIR: {} does not exist", file.string()));
        return file;
    }
    std::vector<fs::path> candidates;
    if (auto prefix = executableInstallPrefix()) candidates.push_back(*prefix / "share" / "tarn" / relative);
    candidates.push_back(fs::path(TARN_SOURCE_DATA_DIR) / relative);
    candidates.push_back(fs::path(TARN_INSTALLED_DATA_DIR) / relative);
    for (const auto& file : candidates)
        if (fs::is_regular_file(file)) return file;
    std::string looked;
    for (const auto& file : candidates) looked += (looked.empty() ? "" : ", ") + file.string();
    throw LoadError(fmt::format("cannot find the headphone catalogue (looked for {}); set TARN_DATA_DIR to the "
                                "folder that holds profiles/catalog.json",
                                looked));
}

BundledProfileCatalog::BundledProfileCatalog() = default;
BundledProfileCatalog::BundledProfileCatalog(fs::path catalogFile) : file_(std::move(catalogFile)) {}
BundledProfileCatalog::~BundledProfileCatalog() = default;

const BundledProfileCatalog::Index& BundledProfileCatalog::index() const {
    if (const Index* ready = loaded_.load(std::memory_order_acquire)) return *ready;
    std::lock_guard lock(loadMutex_);
    if (const Index* ready = loaded_.load(std::memory_order_relaxed)) return *ready;
    owned_ = Index::load(file_ ? *file_ : locateCatalogFile());
    loaded_.store(owned_.get(), std::memory_order_release);
    return *owned_;
}

const std::vector<HeadphoneProfile>& BundledProfileCatalog::profiles() const { return index().profiles; }
const std::string& BundledProfileCatalog::source() const { return index().source; }
fs::path BundledProfileCatalog::file() const { return index().file; }

const HeadphoneProfile* BundledProfileCatalog::profile(std::string_view id) const {
    const auto& idx = index();
    auto it = idx.byID.find(std::string(id));
    return it == idx.byID.end() ? nullptr : &idx.profiles[it->second];
}

std::vector<std::string> BundledProfileCatalog::brands() const { return index().brands; }

std::vector<const HeadphoneProfile*> BundledProfileCatalog::models(std::string_view brand) const {
    const auto& idx = index();
    const std::string key = SearchText::fold(brand);
    std::vector<const HeadphoneProfile*> out;
    for (std::size_t i : idx.naturalOrder)
        if (idx.entries[i].brandKey == key) out.push_back(&idx.profiles[i]);
    return out;
}

std::vector<const HeadphoneProfile*> BundledProfileCatalog::featured() const {
    const auto& idx = index();
    std::vector<const HeadphoneProfile*> out;
    for (std::size_t i : idx.naturalOrder)
        if (idx.profiles[i].isFeatured) out.push_back(&idx.profiles[i]);
    return out;
}

std::vector<const HeadphoneProfile*> BundledProfileCatalog::search(std::string_view text, std::size_t limit) const {
    const auto& idx = index();
    std::vector<QueryWord> words;
    std::string queryJoined;
    for (const auto& word : splitWhitespace(SearchText::fold(text))) {
        QueryWord q;
        q.tokens = SearchText::tokens(word);
        if (q.tokens.empty()) continue; // punctuation alone ("&", "-") matches everything
        q.compact = joined(q.tokens);
        queryJoined += q.compact;
        words.push_back(std::move(q));
    }
    if (words.empty()) {
        auto out = featured();
        if (out.size() > limit) out.resize(limit);
        return out;
    }

    struct Hit {
        // 0 exact, 1 the name begins with the text, 2 every word found elsewhere in the name,
        // 3 some word found only in the source or wear style ("crinacle", "in-ear")
        int rank;
        bool featured;
        std::size_t naturalRank;
        std::size_t index;
    };
    std::vector<Hit> hits;
    for (std::size_t i = 0; i < idx.entries.size(); ++i) {
        const auto& e = idx.entries[i];
        bool all = true, allInName = true;
        for (const auto& w : words) {
            if (e.name.matches(w)) continue;
            if (!e.details.matches(w)) {
                all = false;
                break;
            }
            allInName = false;
        }
        if (!all) continue;
        int rank = 3;
        if (allInName) {
            if (queryJoined == e.modelJoined || queryJoined == e.fullJoined)
                rank = 0;
            else if (startsWith(e.modelJoined, queryJoined) || startsWith(e.fullJoined, queryJoined))
                rank = 1;
            else
                rank = 2;
        }
        hits.push_back({rank, idx.profiles[i].isFeatured, e.naturalRank, i});
    }
    const auto better = [](const Hit& a, const Hit& b) {
        if (a.rank != b.rank) return a.rank < b.rank;
        if (a.featured != b.featured) return a.featured;
        return a.naturalRank < b.naturalRank;
    };
    const std::size_t count = std::min(limit, hits.size());
    std::partial_sort(hits.begin(), hits.begin() + static_cast<std::ptrdiff_t>(count), hits.end(), better);
    std::vector<const HeadphoneProfile*> out;
    out.reserve(count);
    for (std::size_t k = 0; k < count; ++k) out.push_back(&idx.profiles[hits[k].index]);
    return out;
}

std::string_view BundledProfileCatalog::brandOf(std::string_view modelName) {
    for (auto maker : kMultiWordMakers)
        if (startsWithIgnoringCase(modelName, maker) &&
            (modelName.size() == maker.size() || modelName[maker.size()] == ' '))
            return modelName.substr(0, maker.size());
    return modelName.substr(0, std::min(modelName.find(' '), modelName.size()));
}

std::string_view BundledProfileCatalog::modelOf(std::string_view modelName) {
    auto rest = modelName.substr(brandOf(modelName).size());
    while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    return rest;
}

} // namespace tarn
