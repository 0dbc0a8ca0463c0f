#include "core/io/JsonCodecs.hpp"

#include <cmath>
#include <limits>

#include <fmt/format.h>

namespace tarn {

using nlohmann::json;

namespace jsonread {

void requireObject(const json& j, const char* what) {
    if (!j.is_object()) throw DecodingError(fmt::format("{} must be a JSON object", what));
}

const json& member(const json& object, const char* key) {
    requireObject(object, "a record");
    auto it = object.find(key);
    if (it == object.end()) throw DecodingError(fmt::format("missing key \"{}\"", key));
    return *it;
}

double number(const json& j, const char* what) {
    if (!j.is_number()) throw DecodingError(fmt::format("{} must be a number", what));
    return j.get<double>();
}

std::int64_t integer(const json& j, const char* what) {
    if (j.is_number_integer()) return j.get<std::int64_t>();
    if (j.is_number_unsigned()) {
        const auto value = j.get<std::uint64_t>();
        if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return static_cast<std::int64_t>(value);
    }
    if (j.is_number_float()) {
        const double value = j.get<double>();
        if (std::isfinite(value) && value == std::trunc(value) && std::abs(value) < 9.0e15)
            return static_cast<std::int64_t>(value);
    }
    throw DecodingError(fmt::format("{} must be a whole number", what));
}

bool boolean(const json& j, const char* what) {
    if (!j.is_boolean()) throw DecodingError(fmt::format("{} must be true or false", what));
    return j.get<bool>();
}

const std::string& string(const json& j, const char* what) {
    if (!j.is_string()) throw DecodingError(fmt::format("{} must be a string", what));
    return j.get_ref<const std::string&>();
}

} // namespace jsonread

using namespace jsonread;

namespace {

// Decodes an enumeration from its raw-value string through the type's own fromString.
template <typename Enum, typename Parse>
Enum rawEnum(const json& j, const char* what, Parse parse) {
    const auto& raw = jsonread::string(j, what);
    auto parsed = parse(raw);
    if (!parsed) throw DecodingError(fmt::format("unknown {} \"{}\"", what, raw));
    return *parsed;
}

// Optional keys: a missing or null value is "none"; anything else must decode.
const json* present(const json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

std::int32_t int32(const json& j, const char* what) {
    const auto value = integer(j, what);
    if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max())
        throw DecodingError(fmt::format("{} is out of range", what));
    return static_cast<std::int32_t>(value);
}

std::vector<double> numbers(const json& j, const char* what) {
    if (!j.is_array()) throw DecodingError(fmt::format("{} must be a list of numbers", what));
    std::vector<double> out;
    out.reserve(j.size());
    for (const auto& v : j) out.push_back(number(v, what));
    return out;
}

template <typename T>
std::vector<T> records(const json& j, const char* what) {
    if (!j.is_array()) throw DecodingError(fmt::format("{} must be a list", what));
    std::vector<T> out;
    out.reserve(j.size());
    for (const auto& v : j) out.push_back(v.get<T>());
    return out;
}

std::map<std::string, int> counts(const json& j, const char* what) {
    requireObject(j, what);
    std::map<std::string, int> out;
    for (const auto& [name, value] : j.items()) out.emplace(name, int32(value, what));
    return out;
}

// Forgiving keys: any error while reading the value is discarded and the default kept, except a
// value out of range, which is a mistake to report rather than a shape to outgrow.
template <typename F>
void forgiving(const json& object, const char* key, F&& read) {
    auto it = object.find(key);
    if (it == object.end()) return;
    try {
        read(*it);
    } catch (const ValueRangeError&) {
        throw;
    } catch (const DecodingError&) {
    } catch (const json::exception&) {
    }
}

// A filter as stored, without the range check.
ParametricFilterSpec uncheckedFilter(const json& j) {
    ParametricFilterSpec f;
    f.shape = rawEnum<ParametricFilterSpec::Shape>(member(j, "shape"), "filter shape", parametricShapeFromString);
    f.frequencyHz = number(member(j, "frequencyHz"), "a filter frequency");
    f.gainDb = number(member(j, "gainDb"), "a filter gain");
    f.q = number(member(j, "q"), "a filter Q");
    return f;
}

std::vector<ParametricFilterSpec> uncheckedFilters(const json& j, const char* what) {
    if (!j.is_array()) throw DecodingError(fmt::format("{} must be a list", what));
    std::vector<ParametricFilterSpec> out;
    out.reserve(j.size());
    for (const auto& v : j) out.push_back(uncheckedFilter(v));
    return out;
}

double checkedPreamp(const json& j, const char* what) {
    const double db = number(j, what);
    if (auto problem = ParametricFilterSpec::preampProblem(db)) throw ValueRangeError(*problem);
    return db;
}

double checkedGain(const json& j, const char* what) {
    const double db = number(j, what);
    if (auto problem = ParametricFilterSpec::gainProblem(what, db)) throw ValueRangeError(*problem);
    return db;
}

HeadphoneProfile decodeProfile(const json& j, bool checkValues);

} // namespace

void to_json(json& j, const Date& d) { j = d.secondsSinceReferenceDate; }
void from_json(const json& j, Date& d) {
    if (!j.is_number()) throw DecodingError("a date must be a number of seconds since 2001-01-01");
    d.secondsSinceReferenceDate = j.get<double>();
}

void to_json(json& j, const UUID& id) { j = id.string(); }
void from_json(const json& j, UUID& id) {
    const auto& raw = jsonread::string(j, "an identifier");
    auto parsed = UUID::fromString(raw);
    if (!parsed) throw DecodingError(fmt::format("\"{}\" is not a UUID", raw));
    id = *parsed;
}

void to_json(json& j, const GenrePreset& g) { j = std::string(toString(g)); }
void from_json(const json& j, GenrePreset& g) { g = rawEnum<GenrePreset>(j, "genre", genrePresetFromString); }

void to_json(json& j, const RouteKind& k) { j = std::string(toString(k)); }
void from_json(const json& j, RouteKind& k) { k = rawEnum<RouteKind>(j, "route kind", routeKindFromString); }

void to_json(json& j, const RouteCaptureMode& m) { j = std::string(toString(m)); }
void from_json(const json& j, RouteCaptureMode& m) {
    m = rawEnum<RouteCaptureMode>(j, "capture mode", routeCaptureModeFromString);
}

void to_json(json& j, const RouteActivationMode& m) { j = std::string(toString(m)); }
void from_json(const json& j, RouteActivationMode& m) {
    m = rawEnum<RouteActivationMode>(j, "activation mode", routeActivationModeFromString);
}

void to_json(json& j, const RouteHealth& h) { j = std::string(toString(h)); }
void from_json(const json& j, RouteHealth& h) { h = rawEnum<RouteHealth>(j, "route health", routeHealthFromString); }

void to_json(json& j, const RecommendationScope& s) { j = std::string(toString(s)); }
void from_json(const json& j, RecommendationScope& s) {
    s = rawEnum<RecommendationScope>(j, "AI Tune scope", recommendationScopeFromString);
}

void to_json(json& j, const ParametricFilterSpec& f) {
    j = json{{"shape", std::string(toString(f.shape))},
             {"frequencyHz", f.frequencyHz},
             {"gainDb", f.gainDb},
             {"q", f.q}};
}
void from_json(const json& j, ParametricFilterSpec& f) {
    const ParametricFilterSpec read = uncheckedFilter(j);
    if (auto problem = read.valueProblem()) throw ValueRangeError("a filter's " + *problem);
    f = read;
}

void to_json(json& j, const EQBandState& b) {
    j = json{{"id", b.id}, {"frequencyHz", b.frequencyHz}, {"gainDb", b.gainDb}, {"q", b.q}};
}
void from_json(const json& j, EQBandState& b) {
    b.id = int32(member(j, "id"), "a band id");
    b.frequencyHz = number(member(j, "frequencyHz"), "a band frequency");
    b.gainDb = number(member(j, "gainDb"), "a band gain");
    b.q = number(member(j, "q"), "a band Q");
}

void to_json(json& j, const HeadphoneWearStyle& s) { j = std::string(toString(s)); }
void from_json(const json& j, HeadphoneWearStyle& s) {
    s = rawEnum<HeadphoneWearStyle>(j, "wear style", headphoneWearStyleFromString);
}

void to_json(json& j, const HeadphoneProfile& p) {
    j = json::object();
    j["id"] = p.id;
    j["modelName"] = p.modelName;
    j["sourceProject"] = p.sourceProject;
    if (p.measurementProvider) j["measurementProvider"] = *p.measurementProvider;
    j["type"] = std::string(toString(p.type));
    j["preampDb"] = p.preampDb;
    j["filters"] = p.filters;
    if (p.sourceURL) j["sourceURL"] = *p.sourceURL;
    if (p.downloadTimestamp) j["downloadTimestamp"] = *p.downloadTimestamp;
    if (p.wearStyle) j["wearStyle"] = *p.wearStyle;
    j["isFeatured"] = p.isFeatured;
}

void from_json(const json& j, HeadphoneProfile& p) { p = decodeProfile(j, true); }

namespace {

HeadphoneProfile decodeProfile(const json& j, bool checkValues) {
    HeadphoneProfile out;
    out.id = jsonread::string(member(j, "id"), "a profile id");
    out.modelName = jsonread::string(member(j, "modelName"), "a model name");
    out.sourceProject = jsonread::string(member(j, "sourceProject"), "a source project");
    if (auto* v = present(j, "measurementProvider")) out.measurementProvider = jsonread::string(*v, "a measurement provider");
    out.type = rawEnum<HeadphoneProfile::ProfileType>(member(j, "type"), "profile type", profileTypeFromString);
    out.preampDb = checkValues ? checkedPreamp(member(j, "preampDb"), "a preamp") : number(member(j, "preampDb"), "a preamp");
    out.filters = checkValues ? records<ParametricFilterSpec>(member(j, "filters"), "filters")
                              : uncheckedFilters(member(j, "filters"), "filters");
    if (auto* v = present(j, "sourceURL")) out.sourceURL = jsonread::string(*v, "a source URL");
    if (auto* v = present(j, "downloadTimestamp")) out.downloadTimestamp = v->get<Date>();
    if (auto* v = present(j, "wearStyle")) out.wearStyle = v->get<HeadphoneWearStyle>();
    out.isFeatured = boolean(member(j, "isFeatured"), "isFeatured");
    return out;
}

} // namespace

void to_json(json& j, const AppRoute& r) {
    j = json::object();
    j["id"] = r.id;
    j["kind"] = r.kind;
    j["bundleID"] = r.bundleID;
    j["displayName"] = r.displayName;
    if (r.targetOutputDeviceID) j["targetOutputDeviceID"] = *r.targetOutputDeviceID;
    if (r.targetOutputStreamIndex) j["targetOutputStreamIndex"] = *r.targetOutputStreamIndex;
    j["gainDb"] = r.gainDb;
    j["isMuted"] = r.isMuted;
    j["customEQBands"] = r.customEQBands;
    j["customEQBypassed"] = r.customEQBypassed;
    j["outputTrimDb"] = r.outputTrimDb;
    if (r.correctionProfileID) j["correctionProfileID"] = *r.correctionProfileID;
    if (r.correctionProfileSnapshot) j["correctionProfileSnapshot"] = *r.correctionProfileSnapshot;
    j["correctionBypassed"] = r.correctionBypassed;
    j["selectedGenre"] = r.selectedGenre;
    j["health"] = r.health;
    j["effectiveOutputChannelCount"] = r.effectiveOutputChannelCount;
    j["effectiveOutputLayoutDescription"] = r.effectiveOutputLayoutDescription;
    j["lastCaptureMode"] = r.lastCaptureMode;
    if (r.importedProfileName) j["importedProfileName"] = *r.importedProfileName;
    j["importedParametricFilters"] = r.importedParametricFilters;
    j["importedParametricPreampDb"] = r.importedParametricPreampDb;
    j["activationMode"] = r.activationMode;
    if (r.aiTuneScope) j["aiTuneScope"] = *r.aiTuneScope;
    j["aiTuneTweaksDb"] = r.aiTuneTweaksDb;
    j["aiLockedBands"] = r.aiLockedBands;
    j["channelEQDeltasDb"] = r.channelEQDeltasDb;
    if (r.aiGenrePreference) j["aiGenrePreference"] = *r.aiGenrePreference;
}

namespace {

// Per-channel deltas: each channel keeps at most its first ten bands, and a value that is not
// a finite number (written as null by encoders that meet NaN, or overflowing on read) becomes 0.
std::vector<std::vector<double>> sanitisedChannelDeltas(const json& j) {
    if (!j.is_array()) throw DecodingError("channelEQDeltasDb must be a list of lists");
    std::vector<std::vector<double>> channels;
    channels.reserve(j.size());
    for (const auto& channel : j) {
        if (!channel.is_array()) throw DecodingError("channelEQDeltasDb must be a list of lists");
        std::vector<double> deltas;
        for (const auto& value : channel) {
            if (deltas.size() == 10) break;
            if (value.is_null()) {
                deltas.push_back(0.0);
                continue;
            }
            const double delta = number(value, "a channel EQ delta");
            deltas.push_back(std::isfinite(delta) ? delta : 0.0);
        }
        channels.push_back(std::move(deltas));
    }
    return channels;
}

} // namespace

void from_json(const json& j, AppRoute& route) {
    requireObject(j, "a route");
    AppRoute r;

    // Keys every saved route has carried from the start.
    r.id = member(j, "id").get<UUID>();
    r.bundleID = jsonread::string(member(j, "bundleID"), "bundleID");
    r.displayName = jsonread::string(member(j, "displayName"), "displayName");
    r.gainDb = number(member(j, "gainDb"), "gainDb");
    r.isMuted = boolean(member(j, "isMuted"), "isMuted");
    r.customEQBands = records<EQBandState>(member(j, "customEQBands"), "customEQBands");
    r.customEQBypassed = boolean(member(j, "customEQBypassed"), "customEQBypassed");
    r.outputTrimDb = number(member(j, "outputTrimDb"), "outputTrimDb");
    r.correctionBypassed = boolean(member(j, "correctionBypassed"), "correctionBypassed");
    r.selectedGenre = member(j, "selectedGenre").get<GenrePreset>();

    // Optional keys: absent means the default, but a present value must be valid.
    if (auto* v = present(j, "kind")) r.kind = v->get<RouteKind>();
    if (auto* v = present(j, "targetOutputDeviceID")) r.targetOutputDeviceID = jsonread::string(*v, "targetOutputDeviceID");
    if (auto* v = present(j, "targetOutputStreamIndex")) {
        const auto index = integer(*v, "targetOutputStreamIndex");
        if (index < 0 || index > std::numeric_limits<std::uint32_t>::max())
            throw DecodingError("targetOutputStreamIndex is out of range");
        r.targetOutputStreamIndex = static_cast<std::uint32_t>(index);
    }
    if (auto* v = present(j, "correctionProfileID")) r.correctionProfileID = jsonread::string(*v, "correctionProfileID");
    if (auto* v = present(j, "health")) r.health = v->get<RouteHealth>();
    if (auto* v = present(j, "importedProfileName")) r.importedProfileName = jsonread::string(*v, "importedProfileName");

    // Keys added over time, or whose stored shape may have changed: never fail the route.
    forgiving(j, "correctionProfileSnapshot", [&](const json& v) { r.correctionProfileSnapshot = decodeProfile(v, false); });
    forgiving(j, "effectiveOutputChannelCount",
              [&](const json& v) { r.effectiveOutputChannelCount = int32(v, "effectiveOutputChannelCount"); });
    forgiving(j, "effectiveOutputLayoutDescription", [&](const json& v) {
        r.effectiveOutputLayoutDescription = jsonread::string(v, "effectiveOutputLayoutDescription");
    });
    forgiving(j, "lastCaptureMode", [&](const json& v) { r.lastCaptureMode = v.get<RouteCaptureMode>(); });
    forgiving(j, "importedParametricFilters", [&](const json& v) {
        r.importedParametricFilters = uncheckedFilters(v, "importedParametricFilters");
    });
    forgiving(j, "importedParametricPreampDb",
              [&](const json& v) { r.importedParametricPreampDb = number(v, "importedParametricPreampDb"); });
    forgiving(j, "activationMode", [&](const json& v) { r.activationMode = v.get<RouteActivationMode>(); });
    forgiving(j, "aiTuneScope", [&](const json& v) { r.aiTuneScope = v.get<RecommendationScope>(); });
    forgiving(j, "aiTuneTweaksDb", [&](const json& v) {
        auto tweaks = numbers(v, "aiTuneTweaksDb");
        if (tweaks.size() == 10) r.aiTuneTweaksDb = std::move(tweaks);
    });
    forgiving(j, "aiLockedBands", [&](const json& v) {
        if (!v.is_array()) throw DecodingError("aiLockedBands must be a list");
        std::vector<bool> locked;
        for (const auto& b : v) locked.push_back(boolean(b, "aiLockedBands"));
        if (locked.size() == 10) r.aiLockedBands = std::move(locked);
    });
    forgiving(j, "aiGenrePreference", [&](const json& v) { r.aiGenrePreference = v.get<GenrePreset>(); });
    forgiving(j, "channelEQDeltasDb", [&](const json& v) { r.channelEQDeltasDb = sanitisedChannelDeltas(v); });

    route = std::move(r);
}

void to_json(json& j, const EQPreset& p) {
    j = json::object();
    j["id"] = p.id;
    j["name"] = p.name;
    j["createdAt"] = p.createdAt;
    j["bandGains"] = p.bandGains;
    j["selectedGenre"] = p.selectedGenre;
    if (p.correctionProfileID) j["correctionProfileID"] = *p.correctionProfileID;
    j["outputTrimDb"] = p.outputTrimDb;
    j["parametricFilters"] = p.parametricFilters;
    j["parametricPreampDb"] = p.parametricPreampDb;
}

void from_json(const json& j, EQPreset& preset) {
    requireObject(j, "a preset");
    EQPreset p;
    p.id = member(j, "id").get<UUID>();
    p.name = jsonread::string(member(j, "name"), "a preset name");
    p.createdAt = member(j, "createdAt").get<Date>();
    const json& bandGains = member(j, "bandGains");
    if (!bandGains.is_array()) throw DecodingError("bandGains must be a list of numbers");
    for (const auto& gain : bandGains) p.bandGains.push_back(checkedGain(gain, "a band gain"));
    p.selectedGenre = member(j, "selectedGenre").get<GenrePreset>();
    if (auto* v = present(j, "correctionProfileID")) p.correctionProfileID = jsonread::string(*v, "correctionProfileID");
    p.outputTrimDb = checkedGain(member(j, "outputTrimDb"), "an output trim");
    forgiving(j, "parametricFilters",
              [&](const json& v) { p.parametricFilters = records<ParametricFilterSpec>(v, "parametricFilters"); });
    forgiving(j, "parametricPreampDb", [&](const json& v) { p.parametricPreampDb = checkedPreamp(v, "parametricPreampDb"); });
    preset = std::move(p);
}

void to_json(json& j, const ListeningGenreHistory& h) {
    j = json::object();
    j["trackCount"] = h.trackCount;
    j["genreCounts"] = h.genreCounts;
    j["artistCounts"] = h.artistCounts;
    if (h.lastUpdate) j["lastUpdate"] = *h.lastUpdate;
    j["dismissedGenres"] = h.dismissedGenres;
}

void from_json(const json& j, ListeningGenreHistory& history) {
    requireObject(j, "a listening history");
    ListeningGenreHistory h;
    h.trackCount = int32(member(j, "trackCount"), "trackCount");
    h.genreCounts = counts(member(j, "genreCounts"), "genreCounts");
    if (auto* v = present(j, "artistCounts")) h.artistCounts = counts(*v, "artistCounts");
    if (auto* v = present(j, "lastUpdate")) h.lastUpdate = v->get<Date>();
    if (auto* v = present(j, "dismissedGenres")) {
        if (!v->is_array()) throw DecodingError("dismissedGenres must be a list of names");
        for (const auto& name : *v) h.dismissedGenres.insert(jsonread::string(name, "a dismissed genre"));
    }
    history = std::move(h);
}

} // namespace tarn
