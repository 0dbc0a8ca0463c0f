#include "app/VoiceShaping.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "core/recommendation/RecommendationRuleEngine.hpp"

namespace tarn {

namespace {

using namespace VoiceShaping;

constexpr const char* kNothingUsable = "Nothing to change — give me at least one band.";
constexpr const char* kAtLoudnessCeiling =
    "It's already at the loudness ceiling — turning up further would only squash the sound. "
    "Try lowering another app instead.";

// std::round rounds halves away from zero, which is what a user expects of "+0.5 and 2 more".
// Adding 0.0 turns a rounded -0 into +0, so that a band brought back to flat reads "+0", not "-0".
double wholeDb(double v) { return std::round(v) + 0.0; }

std::string signedDb(double v) { return fmt::format("{:+.0f}", wholeDb(v)); }

// A meter that reads garbage gives no proof of headroom, so it must not let the level rise.
bool atLoudnessCeiling(double peak) { return !std::isfinite(peak) || peak >= loudnessCeilingPeak; }

double stepFor(double requestDb) {
    return std::copysign(std::clamp(std::abs(requestDb), minStepDb, maxStepDb), requestDb);
}

bool usable(int band, double changeDb) {
    return band >= 0 && band < TenBandLayout::bandCount && std::isfinite(changeDb) && changeDb != 0.0;
}

// The part of the request the bands could not take, moved to the trim; empty when nothing is said.
std::optional<std::string> compensateLevel(double deficitDb, const VoiceShapingState& state, VoiceShapingResult& r) {
    const double trim = state.trimDb;
    if (deficitDb > 0.0) {
        if (atLoudnessCeiling(state.outputPeak))
            return "wanted to lift the level to finish the cut, but it's already at the loudness ceiling";
        const double next = std::min(trim + deficitDb, maxTrimDb);
        if (next <= trim) return std::nullopt;
        r.trimDb = next;
        return fmt::format("band hit its floor, so the level comes up {} dB to land the cut", signedDb(next - trim));
    }
    if (deficitDb < 0.0) {
        const double next = std::max(trim + deficitDb, minTrimDb);
        if (next >= trim) return std::nullopt;
        r.trimDb = next;
        return fmt::format("band was maxed, so the level drops {} dB to keep the boost honest", signedDb(next - trim));
    }
    return std::nullopt;
}

} // namespace

VoiceShapingResult shapeBands(const std::map<int, double>& requestedChangesDb, const VoiceShapingState& state) {
    VoiceShapingResult r;
    std::vector<std::string> bandNotes, notes;
    double maxOvershootDb = 0.0, maxUndershootDb = 0.0, appliedSumDb = 0.0;
    bool counterweightRequested = false;

    for (const auto& [band, changeDb] : requestedChangesDb) { // std::map: ascending band order
        if (!usable(band, changeDb)) continue;
        if (band == counterweightBand) counterweightRequested = true;
        const double user = state.bandGainsDb[band];

        if (state.isAITuneEngaged) {
            const double heard = user + state.aiTweaksDb[band];
            double target = std::clamp(wholeDb(heard + stepFor(changeDb)), TenBandLayout::minGainDb,
                                       RecommendationRuleEngine::productCapDb(band));
            // A band the user set above AI Tune's cap stays where it is on "more", not pulled down.
            if ((changeDb > 0 && target < heard) || (changeDb < 0 && target > heard)) target = heard;
            r.aiTweaksDb[band] = target - user;
            bandNotes.push_back(fmt::format("{} {}", RecommendationRuleEngine::bandName(band), signedDb(target)));
            continue;
        }

        const double target = wholeDb(user + stepFor(changeDb));
        const double next = std::clamp(target, TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
        maxOvershootDb = std::max(maxOvershootDb, target - TenBandLayout::maxGainDb);
        maxUndershootDb = std::max(maxUndershootDb, TenBandLayout::minGainDb - target);
        appliedSumDb += next - user;
        r.bandGainsDb[band] = next;
        r.habitBands.push_back(band);
        bandNotes.push_back(fmt::format("{} {}", RecommendationRuleEngine::bandName(band), signedDb(next)));
    }

    if (bandNotes.empty()) {
        r.answer = kNothingUsable;
        return r;
    }

    if (state.isAITuneEngaged) {
        notes.push_back("kept inside AI Tune's window");
    } else {
        if (!counterweightRequested && appliedSumDb >= counterweightFromDb) {
            const double before = state.bandGainsDb[counterweightBand];
            const double after = std::clamp(before - wholeDb(counterweightShare * appliedSumDb),
                                            TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
            r.bandGainsDb[counterweightBand] = after;
            notes.push_back(fmt::format("balance stick {} as counterweight", signedDb(after - before)));
        }
        if (auto note = compensateLevel(maxUndershootDb - maxOvershootDb, state, r)) notes.push_back(*note);
    }

    r.answer = "Done: " + fmt::format("{}", fmt::join(bandNotes, ", "));
    for (const auto& note : notes) r.answer += " — " + note;
    return r;
}

VoiceShapingResult adjustLoudness(bool up, const VoiceShapingState& state) {
    VoiceShapingResult r;
    const double trim = state.trimDb;
    if (!up) {
        if (trim <= minTrimDb) {
            r.answer = "Trim is already at its floor.";
        } else {
            r.trimDb = std::max(trim - loudnessStepDb, minTrimDb);
            r.answer = "Easing the level down.";
        }
        return r;
    }
    if (atLoudnessCeiling(state.outputPeak)) {
        r.answer = kAtLoudnessCeiling;
    } else if (trim >= maxTrimDb) {
        r.answer = fmt::format("Trim is already generous at +{:.0f} dB — going higher would eat all the headroom.",
                               wholeDb(trim));
    } else {
        r.trimDb = std::min(trim + loudnessStepDb, maxTrimDb);
        r.answer = "Easing the level up.";
    }
    return r;
}

} // namespace tarn
