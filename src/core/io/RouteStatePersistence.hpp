#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/io/PreferencesStore.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

// The persisted form of the desk: every route and which one is selected, as one document.
class RouteStatePersistence {
public:
    static constexpr std::string_view key = "Tarn.routesState.v1";

    struct State {
        std::optional<UUID> selectedRouteID;
        std::vector<AppRoute> routes;

        bool operator==(const State&) const = default;
    };

    explicit RouteStatePersistence(PreferencesStore store) : store_(std::move(store)) {}

    // The stored state and the exact bytes it was decoded from. None when nothing is stored or
    // the document does not decode (one bad route fails them all); nothing is reported and the
    // document is left as it is. Routes come back exactly as saved, health included: the
    // caller restores them for the new session.
    std::optional<std::pair<State, std::string>> load() const;

    // Writes the whole state atomically; throws PreferencesStore::Error and keeps the previous
    // document when the write fails.
    void save(const State& state);

    static std::string encode(const State& state);
    static State decode(std::string_view data); // throws on anything that is not a valid state

    const PreferencesStore& store() const { return store_; }

private:
    PreferencesStore store_;
};

void to_json(nlohmann::json& j, const RouteStatePersistence::State& s);
void from_json(const nlohmann::json& j, RouteStatePersistence::State& s);

} // namespace tarn
