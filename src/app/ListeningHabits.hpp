#pragma once

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

// The listener's standing preference per band, learnt from the bands they set by hand (voice
// and shortcut commands): what AI Tune adds as "your usual preference".
struct ListeningHabits {
    static constexpr std::string_view key = "Tarn.listeningHabits.v1";
    // Each hand-set value moves the habit a fifth of the way: one odd setting does not make a habit.
    static constexpr double learningRate = 0.2;

    std::vector<double> biasDb = std::vector<double>(TenBandLayout::bandCount, 0.0);

    void record(int band, double gainDb) {
        if (band < 0 || band >= int(biasDb.size()) || !std::isfinite(gainDb)) return;
        auto& b = biasDb[std::size_t(band)];
        b += learningRate * (std::clamp(gainDb, TenBandLayout::minGainDb, TenBandLayout::maxGainDb) - b);
    }

    bool operator==(const ListeningHabits&) const = default;
};

inline void to_json(nlohmann::json& j, const ListeningHabits& h) { j = {{"biasDb", h.biasDb}}; }

inline void from_json(const nlohmann::json& j, ListeningHabits& h) {
    auto bias = j.at("biasDb").get<std::vector<double>>();
    if (bias.size() != std::size_t(TenBandLayout::bandCount)) throw nlohmann::json::other_error::create(501, "biasDb must hold ten values", &j);
    for (double& v : bias)
        if (!std::isfinite(v)) v = 0.0;
    h.biasDb = std::move(bias);
}

} // namespace tarn
