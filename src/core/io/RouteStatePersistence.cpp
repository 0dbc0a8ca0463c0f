#include "core/io/RouteStatePersistence.hpp"

#include "core/io/JsonCodecs.hpp"

namespace tarn {

using nlohmann::json;

void to_json(json& j, const RouteStatePersistence::State& s) {
    j = json::object();
    if (s.selectedRouteID) j["selectedRouteID"] = *s.selectedRouteID;
    j["routes"] = s.routes;
}

void from_json(const json& j, RouteStatePersistence::State& s) {
    jsonread::requireObject(j, "the routes state");
    RouteStatePersistence::State out;
    if (auto it = j.find("selectedRouteID"); it != j.end() && !it->is_null()) out.selectedRouteID = it->get<UUID>();
    const auto& routes = jsonread::member(j, "routes");
    if (!routes.is_array()) throw DecodingError("routes must be a list");
    for (const auto& route : routes) out.routes.push_back(route.get<AppRoute>());
    s = std::move(out);
}

std::string RouteStatePersistence::encode(const State& state) { return json(state).dump(); }

RouteStatePersistence::State RouteStatePersistence::decode(std::string_view data) {
    return json::parse(data).get<State>();
}

std::optional<std::pair<RouteStatePersistence::State, std::string>> RouteStatePersistence::load() const {
    try {
        auto data = store_.data(key);
        if (!data) return std::nullopt;
        State state = decode(*data);
        return std::pair{std::move(state), std::move(*data)};
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void RouteStatePersistence::save(const State& state) { store_.setJSON(key, json(state)); }

} // namespace tarn
