#include "core/recommendation/RecommendationRuleEngine.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include <fmt/format.h>

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

namespace {

constexpr int kBands = RecommendationRuleEngine::bandCount;

// Song layer.
constexpr double kOverDeliveredSumDb = 12.0;   // S0 threshold on prominence + deviation
constexpr double kProminentDb = 3.0;
constexpr double kVeryProminentDb = 6.0;
constexpr double kAbsentDb = -7.0;
constexpr double kRecessedDb = -3.0;
constexpr double kHeadphoneSkewDb = 2.5;        // |deviation| from which H1/H2, S1/S3 apply
constexpr double kPreferenceThresholdDb = 0.5;  // |user bias| from which P1 applies

// The neutral-song case compensates the headphone gently ...
constexpr double kSongUnderFactor = 0.8, kSongUnderMaxDb = 4.0;
constexpr double kSongOverFactor = 0.6, kSongOverMaxDb = 3.0;
// ... the taste layer more firmly.
constexpr double kTasteUnderFactor = 1.0, kTasteUnderMaxDb = 6.0;
constexpr double kTasteOverFactor = 0.8, kTasteOverMaxDb = 4.0;

// Genre lean.
constexpr double kLeanSkipLoadDb = 9.0;
constexpr double kLeanMinimumDb = 0.5;

// Guards.
constexpr double kMaxNeighbourStepDb = 6.0;
constexpr double kMudCapDb = 4.0;
constexpr double kTrebleCapDb = 6.0;
constexpr double kHarshTrebleCutDb = -3.0;
constexpr double kLowBandRoomDb = 9.0;
constexpr double kBandRoomDb = 12.0;
constexpr double kBoostBudgetDb = 28.0;

constexpr int kMudBand = 3;
constexpr std::array<int, 2> kTrebleBands = {8, 9};
constexpr std::array<int, 2> kVocalBands = {5, 6};

// A value that is not a number carries no information; it must not leak into gains or reasons.
double finiteOrZero(double v) { return std::isfinite(v) ? v : 0.0; }

std::string num(double v) { return fmt::format("{:.1f}", v); }
// "+3.0" for the positive values that texts prefix with a plus sign; negatives keep their minus.
std::string signedNum(double v) { return fmt::format("{:+.1f}", v); }

struct LayerResult {
    double gainDb = 0.0;
    std::vector<std::string> reasons;
};

struct BandContext {
    int index;
    double p;  // prominence
    double d;  // headphone deviation
    double t;  // taste curve
    double u;  // user bias
    std::string name;
};

std::string preferenceReason(const BandContext& b) {
    return fmt::format("P1: your usual preference at {} ({}{})", b.name, b.u > 0 ? "+" : "", num(b.u));
}

std::string underDeliversReason(const BandContext& b) {
    return fmt::format("H1: headphone under-delivers {} ({} dB) → compensate", b.name, num(b.d));
}

std::string overDeliversReason(const BandContext& b) {
    return fmt::format("H2: headphone over-delivers {} (+{} dB) → ease off", b.name, num(b.d));
}

LayerResult songLayerGain(const BandContext& b) {
    LayerResult r;
    const double s = b.p + b.d;
    if (s >= kOverDeliveredSumDb) {
        r.gainDb = -std::min((s - kOverDeliveredSumDb) * 0.75 + 1.0, 4.0);
        r.reasons.push_back(fmt::format(
            "S0: {} is over-delivered on this setup (song {}, headphone {} = +{} combined) → dampened", b.name,
            num(b.p), num(b.d), num(s)));
        return r;
    }
    const double headroom = std::min((kOverDeliveredSumDb - s) / 3.0, 1.0);

    if (b.p >= kProminentDb) {
        if (b.d <= -kHeadphoneSkewDb) {
            r.gainDb = headroom * std::min(4.0 - 1.2 * b.d, 10.0);
            r.reasons.push_back(fmt::format(
                "S1: {} is prominent in this song and your headphone under-delivers it ({} dB) → strong boost{}",
                b.name, num(b.d), headroom < 1.0 ? " (tempered — the track is already hot here)" : ""));
        } else if (b.d < kHeadphoneSkewDb) {
            r.gainDb = headroom * (b.p >= kVeryProminentDb ? 3.0 : 2.0);
            r.reasons.push_back(fmt::format("S2: {} is prominent in this song → light boost{}", b.name,
                                            headroom < 1.0 ? " (tempered)" : ""));
        } else {
            r.gainDb = -1.0;
            r.reasons.push_back(fmt::format(
                "S3: {} is prominent but your headphone already over-delivers it (+{} dB) → slight cut", b.name,
                num(b.d)));
        }
        return r;
    }
    if (b.p <= kAbsentDb) {
        const bool weakHeadphone = b.d <= -kHeadphoneSkewDb;
        r.gainDb = weakHeadphone ? -2.0 : -4.0;
        r.reasons.push_back(fmt::format("S6: {} is nearly absent in this song → cut{}", b.name,
                                        weakHeadphone ? " (softened — headphone is weak here too)" : ""));
        return r;
    }
    if (b.p <= kRecessedDb) {
        r.gainDb = -3.0;
        r.reasons.push_back(fmt::format("S5: {} is not prominent in this song → −3", b.name));
        return r;
    }

    // The song is neutral here: half the taste curve, the user's standing preference, and a gentle
    // headphone compensation.
    double base = 0.5 * b.t;
    if (b.t != 0.0) r.reasons.push_back(fmt::format("S4: song is neutral at {} → half-weight taste curve", b.name));
    if (std::abs(b.u) >= kPreferenceThresholdDb) {
        base += b.u;
        r.reasons.push_back(preferenceReason(b));
    }
    if (b.d <= -kHeadphoneSkewDb) {
        r.gainDb = std::min(-kSongUnderFactor * b.d, kSongUnderMaxDb) + base;
        r.reasons.push_back(underDeliversReason(b));
    } else if (b.d >= kHeadphoneSkewDb) {
        r.gainDb = base - std::min(kSongOverFactor * b.d, kSongOverMaxDb);
        r.reasons.push_back(overDeliversReason(b));
    } else {
        r.gainDb = base;
    }
    return r;
}

LayerResult tasteLayerGain(const BandContext& b, const std::string& tasteName) {
    LayerResult r;
    double base = b.t;
    if (std::abs(b.u) >= kPreferenceThresholdDb) {
        base += b.u;
        r.reasons.push_back(preferenceReason(b));
    }
    if (b.t != 0.0) r.reasons.push_back(fmt::format("T1: your listening leans {} curve at {}", tasteName, b.name));
    if (b.d <= -kHeadphoneSkewDb) {
        r.gainDb = std::min(-kTasteUnderFactor * b.d, kTasteUnderMaxDb) + base;
        r.reasons.push_back(underDeliversReason(b));
    } else if (b.d >= kHeadphoneSkewDb) {
        r.gainDb = base - std::min(kTasteOverFactor * b.d, kTasteOverMaxDb);
        r.reasons.push_back(overDeliversReason(b));
    } else {
        r.gainDb = base;
    }
    return r;
}

struct Working {
    std::array<double, kBands> gain{};
    std::array<std::vector<std::string>, kBands> reasons;
};

void applyGenreLean(Working& w, const std::array<BandContext, kBands>& bands, const RecommendationInput& input,
                    const std::vector<double>& genreCurve, const std::string& genreName) {
    const double weight = input.genreLeanWeight;
    if (!(weight > 0.0)) return;
    const auto& signature = signatureLeanDb(input.genre);
    if (std::all_of(signature.begin(), signature.end(), [](double v) { return v == 0.0; })) return;
    for (int i = 0; i < kBands; ++i) {
        if (!(signature[i] > 0.0)) continue;
        const auto& b = bands[i];
        const double p = input.prominenceConfident ? b.p : 0.0;
        if (p + b.d >= kLeanSkipLoadDb) continue;
        double lean = weight * signature[i];
        // Where the song is neutral the taste curve already lifts the band; lean on it less.
        if (p > -kProminentDb && p < kProminentDb && genreCurve[i] > 0.0) lean += weight * genreCurve[i] * -0.5;
        if (lean >= kLeanMinimumDb) {
            w.gain[i] += lean;
            w.reasons[i].push_back(fmt::format("GN1: {} leans on {} → +{} dB genre lean", genreName, b.name, num(lean)));
        }
    }
}

void applySmoothing(Working& w) {
    for (int i = 0; i + 1 < kBands; ++i) {
        const auto& nextReasons = w.reasons[i + 1];
        if (!nextReasons.empty() && std::string_view(nextReasons.back()).starts_with("G5")) continue;
        const double diff = w.gain[i + 1] - w.gain[i];
        if (std::abs(diff) <= kMaxNeighbourStepDb) continue;
        const double move = (std::abs(diff) - kMaxNeighbourStepDb) * 0.5;
        const double direction = diff > 0 ? 1.0 : -1.0;
        w.gain[i] += direction * move;
        w.gain[i + 1] -= direction * move;
        w.reasons[i].push_back("G5: smoothed toward " + RecommendationRuleEngine::bandName(i + 1));
        w.reasons[i + 1].push_back("G5: smoothed toward " + RecommendationRuleEngine::bandName(i));
    }
}

void applyHardCaps(Working& w, const std::array<BandContext, kBands>& bands, const RecommendationInput& input,
                   RecommendationScope scope) {
    const bool confidentSong = scope == RecommendationScope::song && input.prominenceConfident;

    if (w.gain[kMudBand] > kMudCapDb) {
        w.gain[kMudBand] = kMudCapDb;
        w.reasons[kMudBand].push_back("G1: capped at +4.0 — 250 Hz boosts turn muddy fast");
    }

    for (int i : kTrebleBands) {
        const auto& b = bands[i];
        if (confidentSong && b.p >= kProminentDb && b.d >= kHeadphoneSkewDb) {
            if (w.gain[i] > kHarshTrebleCutDb) {
                w.gain[i] = kHarshTrebleCutDb;
                w.reasons[i].push_back(fmt::format(
                    "G2: song and headphone are both hot at {} → cut to protect against harshness", b.name));
            }
        } else if (w.gain[i] > kTrebleCapDb) {
            w.gain[i] = kTrebleCapDb;
            w.reasons[i].push_back("G2: treble boost capped at +6.0");
        }
    }

    if (confidentSong) {
        for (int i : kVocalBands) {
            if (bands[i].p >= kProminentDb && w.gain[i] < 0.0) {
                w.gain[i] = 0.0;
                w.reasons[i].push_back("G3: vocal band is present in this song — cut lifted to 0");
            }
        }
    }

    // G8: a boost may only use the room the band has left.
    for (int i = 0; i < kBands; ++i) {
        if (!(w.gain[i] > 0.0)) continue;
        const auto& b = bands[i];
        const double room = i <= 3 ? kLowBandRoomDb : kBandRoomDb;
        if (input.prominenceConfident) {
            const double load = b.p + b.d;
            const double allowance = std::max(room - load, 0.0);
            if (w.gain[i] > allowance) {
                w.gain[i] = allowance;
                w.reasons[i].push_back(fmt::format("G8: {} already runs {} dB hot — boost limited to +{}", b.name,
                                                   signedNum(load), num(allowance)));
            }
        } else if (b.d > 0.0) {
            const double allowance = std::max(room - b.d, 0.0);
            if (w.gain[i] > allowance) {
                w.gain[i] = allowance;
                w.reasons[i].push_back(fmt::format(
                    "G8: your headphone already runs +{} dB on this setup — boost limited to +{}", num(b.d),
                    num(allowance)));
            }
        }
    }
}

void applyGuardRules(Working& w, const std::array<BandContext, kBands>& bands, const RecommendationInput& input,
                     RecommendationScope scope) {
    applySmoothing(w);
    applyHardCaps(w, bands, input, scope);

    double boostSum = 0.0;
    for (double g : w.gain)
        if (g > 0.0) boostSum += g;
    if (boostSum > kBoostBudgetDb) {
        const double scale = kBoostBudgetDb / boostSum;
        for (int i = 0; i < kBands; ++i) {
            if (w.gain[i] > 0.0) {
                w.gain[i] *= scale;
                w.reasons[i].push_back("G4: scaled down — total boost budget");
            }
        }
    }

    for (double& g : w.gain) {
        if (g <= TenBandLayout::minGainDb) g = TenBandLayout::minGainDb;
        else if (g > TenBandLayout::maxGainDb) g = TenBandLayout::maxGainDb;
        else g = std::round(g); // halves away from zero
        if (g == 0.0) g = 0.0;   // no "-0" reaching a display
    }
}

} // namespace

std::string RecommendationRuleEngine::bandName(int index) {
    static constexpr std::array<std::string_view, kBands> names = {
        "sub-bass (31 Hz)", "bass (62 Hz)",       "upper bass (125 Hz)", "low mids (250 Hz)",  "mids (500 Hz)",
        "upper mids (1 kHz)", "presence (2 kHz)", "definition (4 kHz)",  "brilliance (8 kHz)", "air (16 kHz)"};
    if (index < 0 || index >= kBands) return "band " + std::to_string(index);
    return std::string(names[index]);
}

std::vector<double> RecommendationRuleEngine::padded(const std::vector<double>& values, std::size_t count) {
    std::vector<double> out(values.begin(), values.begin() + std::min(values.size(), count));
    out.resize(count, 0.0);
    return out;
}

std::vector<BandRecommendation> RecommendationRuleEngine::recommend(const RecommendationInput& input,
                                                                    RecommendationScope scope) {
    const auto prominence = padded(input.prominenceDb);
    const auto bias = padded(input.userBiasDb);
    const auto& presetCurve = targetGainCurve(input.genre);
    const auto genreCurve = input.genreTargetCurveDb
                                ? padded(*input.genreTargetCurveDb)
                                : std::vector<double>(presetCurve.begin(), presetCurve.end());
    const auto taste = input.learnedWarmupCurveDb ? padded(*input.learnedWarmupCurveDb) : genreCurve;

    const std::string genreName = input.genreDisplayName.value_or(displayName(input.genre));
    const std::string tasteName = input.learnedWarmupCurveDb && !input.learnedWarmupProvenance.empty()
                                      ? input.learnedWarmupProvenance
                                      : genreName;

    std::array<BandContext, kBands> bands;
    for (int i = 0; i < kBands; ++i)
        bands[i] = {i, finiteOrZero(prominence[i]), finiteOrZero(input.headphone.deviationDb[i]),
                    finiteOrZero(taste[i]), finiteOrZero(bias[i]), bandName(i)};

    Working w;
    const bool useSongLayer = scope == RecommendationScope::song && input.prominenceConfident;
    for (int i = 0; i < kBands; ++i) {
        LayerResult r;
        if (useSongLayer) {
            r = songLayerGain(bands[i]);
        } else {
            r = tasteLayerGain(bands[i], tasteName);
            if (scope == RecommendationScope::song) r.reasons.insert(r.reasons.begin(), "song analysis warming up");
        }
        w.gain[i] = r.gainDb;
        w.reasons[i] = std::move(r.reasons);
    }

    if (scope == RecommendationScope::song) applyGenreLean(w, bands, input, genreCurve, genreName);
    applyGuardRules(w, bands, input, scope);

    std::vector<BandRecommendation> out;
    out.reserve(kBands);
    for (int i = 0; i < kBands; ++i) {
        auto reasons = std::move(w.reasons[i]);
        if (reasons.empty()) reasons.push_back("neutral — no rule fired");
        out.push_back({i, w.gain[i], std::move(reasons)});
    }
    return out;
}

double RecommendationRuleEngine::productCapDb(int band) {
    constexpr double maxBoostDb = 10.0;
    if (band == kMudBand) return kMudCapDb;
    if (band == kTrebleBands[0] || band == kTrebleBands[1]) return kTrebleCapDb;
    return maxBoostDb;
}

std::vector<double> RecommendationRuleEngine::sanitizeRefinement(const std::vector<double>& deltas,
                                                                 const std::vector<BandRecommendation>& baseline) {
    constexpr double maxStepDb = 1.5;
    constexpr double stepDb = 0.5;

    std::vector<double> out(kBands, 0.0);
    for (int i = 0; i < kBands; ++i) {
        double base = 0.0;
        for (const auto& rec : baseline)
            if (rec.bandIndex == i && std::isfinite(rec.gainDb)) base = rec.gainDb;

        double delta = i < int(deltas.size()) && std::isfinite(deltas[i]) ? deltas[i] : 0.0;
        delta = std::clamp(delta, -maxStepDb, maxStepDb);
        delta = std::round(delta / stepDb) * stepDb;

        const double cap = productCapDb(i);
        // A refinement may not push a band past its cap; a baseline already past it may only come down.
        const double up = std::floor(std::max(cap - base, 0.0) / stepDb) * stepDb;
        const double down = std::ceil(std::min(TenBandLayout::minGainDb - base, 0.0) / stepDb) * stepDb;
        delta = std::clamp(delta, down, up);
        out[i] = delta == 0.0 ? 0.0 : delta;
    }
    return out;
}

} // namespace tarn
