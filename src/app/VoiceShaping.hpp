#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

// What the voice and shortcut commands ("more bass", "louder", ...) decide for one route. Both
// functions are pure: the route store reads the state, calls them, and applies the result to the
// route and its live chain.
namespace VoiceShaping {
// A spoken "a bit more" must be audible, and "a lot more" must not jump a whole octave's worth.
inline constexpr double minStepDb = 2.0;
inline constexpr double maxStepDb = 4.0;

// The trim range both commands stay inside: +6 keeps some headroom for the bands, -12 matches the
// band floor so a cut can always be compensated.
inline constexpr double minTrimDb = -12.0;
inline constexpr double maxTrimDb = 6.0;
inline constexpr double loudnessStepDb = 2.0; // one "louder" or "quieter"

// From this output peak (linear, 1.0 = full scale) on, a louder route would only be limited.
inline constexpr double loudnessCeilingPeak = 0.98;

// Boosting two or more dB in total without touching the mids tilts the sound; the 500 Hz band
// gives back half of it.
inline constexpr int counterweightBand = 4;
inline constexpr double counterweightFromDb = 2.0;
inline constexpr double counterweightShare = 0.5;
} // namespace VoiceShaping

// What a command sees of one route.
struct VoiceShapingState {
    std::array<double, TenBandLayout::bandCount> bandGainsDb{}; // the user's band gains (31 Hz … 16 kHz)
    std::array<double, TenBandLayout::bandCount> aiTweaksDb{};  // the AI Tune layer on top of them
    bool isAITuneEngaged = false;                              // the route has an AI Tune scope (song or taste)
    double trimDb = 0.0;     // the trim glide target when one is in flight, else the route's output trim
    double outputPeak = 0.0; // the output peak meter right now, linear; a non-finite reading counts as at the ceiling
};

struct VoiceShapingResult {
    std::string answer;                     // one line for the user
    std::map<int, double> bandGainsDb;      // user bands to set, without glide
    std::map<int, double> aiTweaksDb;       // AI-layer entries to set instead
    std::optional<double> trimDb;           // a trim to request (the store glides to it)
    std::vector<int> habitBands;            // bands set by hand, to record as a listening habit
};

// Moves bands by band index → requested change in dB, compensating the level where a band ran
// into its limit. Indices outside 0…9, non-finite changes and changes of exactly 0 are ignored;
// with nothing usable left the answer says so and nothing is changed.
//
// Each usable band moves by the request clamped in magnitude to 2…4 dB, to a whole-dB target
// (halves away from zero).
//
// With AI Tune engaged the user's bands are left alone: the band's current gain is what is heard
// (user gain + AI tweak), and the new AI tweak is (target - user gain), clamped so that the heard
// gain stays inside AI Tune's limits (250 Hz at most +4, 8 and 16 kHz at most +6, any band at most
// +10, nothing below -12). Neither counterweight nor level compensation follows, since AI Tune
// owns the balance of that route.
//
// Otherwise each band is set within -12…+12 and recorded as a habit. If the applied changes add up
// to 2 dB or more and 500 Hz was not among the bands asked for, 500 Hz is lowered by half the sum
// (whole dB). The part of a target that did not fit moves the trim instead: the largest undershoot
// below -12 minus the largest overshoot above +12 is added to the trim, within -12…+6 — except
// that the level is never raised while the output peak sits at the loudness ceiling.
VoiceShapingResult shapeBands(const std::map<int, double>& requestedChangesDb, const VoiceShapingState& state);

// "Louder" / "quieter": moves only the trim, 2 dB at a time, within -12…+6; never raises it while
// the output peak sits at the loudness ceiling.
VoiceShapingResult adjustLoudness(bool up, const VoiceShapingState& state);

} // namespace tarn
