#include "core/io/JsonCodecs.hpp"

#include <fmt/format.h>

namespace tarn {

using nlohmann::json;

namespace {
const std::string& rawString(const json& j, const char* what) {
    if (!j.is_string()) throw DecodingError(fmt::format("{} must be a string", what));
    return j.get_ref<const std::string&>();
}
} // namespace

void to_json(json& j, const Date& d) { j = d.secondsSinceReferenceDate; }
void from_json(const json& j, Date& d) {
    if (!j.is_number()) throw DecodingError("a date must be a number of seconds since 2001-01-01");
    d.secondsSinceReferenceDate = j.get<double>();
}

void to_json(json& j, const GenrePreset& g) { j = std::string(toString(g)); }
void from_json(const json& j, GenrePreset& g) {
    const auto& raw = rawString(j, "a genre");
    auto parsed = genrePresetFromString(raw);
    if (!parsed) throw DecodingError(fmt::format("unknown genre \"{}\"", raw));
    g = *parsed;
}

void to_json(json& j, const ParametricFilterSpec& f) {
    j = json{{"shape", std::string(toString(f.shape))},
             {"frequencyHz", f.frequencyHz},
             {"gainDb", f.gainDb},
             {"q", f.q}};
}
void from_json(const json& j, ParametricFilterSpec& f) {
    const auto& raw = rawString(j.at("shape"), "a filter shape");
    auto shape = parametricShapeFromString(raw);
    if (!shape) throw DecodingError(fmt::format("unknown filter shape \"{}\"", raw));
    f.shape = *shape;
    f.frequencyHz = j.at("frequencyHz").get<double>();
    f.gainDb = j.at("gainDb").get<double>();
    f.q = j.at("q").get<double>();
}

void to_json(json& j, const EQBandState& b) {
    j = json{{"id", b.id}, {"frequencyHz", b.frequencyHz}, {"gainDb", b.gainDb}, {"q", b.q}};
}
void from_json(const json& j, EQBandState& b) {
    b.id = j.at("id").get<int>();
    b.frequencyHz = j.at("frequencyHz").get<double>();
    b.gainDb = j.at("gainDb").get<double>();
    b.q = j.at("q").get<double>();
}

void to_json(json& j, const HeadphoneWearStyle& s) { j = std::string(toString(s)); }
void from_json(const json& j, HeadphoneWearStyle& s) {
    const auto& raw = rawString(j, "a wear style");
    auto parsed = headphoneWearStyleFromString(raw);
    if (!parsed) throw DecodingError(fmt::format("unknown wear style \"{}\"", raw));
    s = *parsed;
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

void from_json(const json& j, HeadphoneProfile& p) {
    HeadphoneProfile out;
    out.id = j.at("id").get<std::string>();
    out.modelName = j.at("modelName").get<std::string>();
    out.sourceProject = j.at("sourceProject").get<std::string>();
    if (auto it = j.find("measurementProvider"); it != j.end() && !it->is_null())
        out.measurementProvider = it->get<std::string>();
    const auto& rawType = rawString(j.at("type"), "a profile type");
    auto type = profileTypeFromString(rawType);
    if (!type) throw DecodingError(fmt::format("unknown profile type \"{}\"", rawType));
    out.type = *type;
    out.preampDb = j.at("preampDb").get<double>();
    out.filters = j.at("filters").get<std::vector<ParametricFilterSpec>>();
    if (auto it = j.find("sourceURL"); it != j.end() && !it->is_null()) out.sourceURL = it->get<std::string>();
    if (auto it = j.find("downloadTimestamp"); it != j.end() && !it->is_null())
        out.downloadTimestamp = it->get<Date>();
    if (auto it = j.find("wearStyle"); it != j.end() && !it->is_null())
        out.wearStyle = it->get<HeadphoneWearStyle>();
    out.isFeatured = j.at("isFeatured").get<bool>();
    p = std::move(out);
}

} // namespace tarn
