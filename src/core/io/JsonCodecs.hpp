#pragma once

// JSON forms of the shared value records. Conventions of every persisted document:
// UUIDs as 36-character upper-case strings, enumerations as raw-value strings, dates as seconds
// since 2001-01-01 UTC, absent optionals omitted, doubles written so that they read back to the
// same value.
//
// Decoding is strict about types (a number is not a Boolean, 2.5 is not an integer) and throws
// DecodingError, or nlohmann::json::exception from deep inside a value; callers that must
// tolerate old or damaged documents catch and fall back. AppRoute decoding carries its own
// tolerance for older shapes (see its from_json).

#include <cstdint>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "core/dsp/EQBandState.hpp"
#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/Date.hpp"
#include "core/models/EQPreset.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/models/ListeningGenreHistory.hpp"
#include "core/models/RouteActivationMode.hpp"
#include "core/models/RouteCaptureMode.hpp"
#include "core/models/RouteHealth.hpp"
#include "core/models/RouteKind.hpp"
#include "core/models/UUID.hpp"
#include "core/profiles/HeadphoneProfile.hpp"
#include "core/recommendation/RecommendationScope.hpp"

namespace tarn {

struct DecodingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A value that reads but that no filter can be built from (a frequency or Q not above 0, a gain
// or preamp beyond ±30 dB, a number that is not finite). Keys that otherwise fall back to a
// default on a decoding error let this one through: the value is the user's mistake to hear of.
struct ValueRangeError : DecodingError {
    using DecodingError::DecodingError;
};

// Strict readers shared by every codec; `what` names the value in the error message.
namespace jsonread {
const nlohmann::json& member(const nlohmann::json& object, const char* key); // throws when missing
double number(const nlohmann::json& j, const char* what);
std::int64_t integer(const nlohmann::json& j, const char* what); // accepts 3 and 3.0, not 3.5
bool boolean(const nlohmann::json& j, const char* what);
const std::string& string(const nlohmann::json& j, const char* what);
void requireObject(const nlohmann::json& j, const char* what);
} // namespace jsonread

void to_json(nlohmann::json& j, const Date& d);
void from_json(const nlohmann::json& j, Date& d);

void to_json(nlohmann::json& j, const UUID& id);
void from_json(const nlohmann::json& j, UUID& id);

void to_json(nlohmann::json& j, const GenrePreset& g);
void from_json(const nlohmann::json& j, GenrePreset& g);

void to_json(nlohmann::json& j, const RouteKind& k);
void from_json(const nlohmann::json& j, RouteKind& k);

void to_json(nlohmann::json& j, const RouteCaptureMode& m);
void from_json(const nlohmann::json& j, RouteCaptureMode& m);

void to_json(nlohmann::json& j, const RouteActivationMode& m);
void from_json(const nlohmann::json& j, RouteActivationMode& m);

void to_json(nlohmann::json& j, const RouteHealth& h);
void from_json(const nlohmann::json& j, RouteHealth& h);

void to_json(nlohmann::json& j, const RecommendationScope& s);
void from_json(const nlohmann::json& j, RecommendationScope& s);

// Refuses, with ValueRangeError naming the value, what ParametricFilterSpec::valueProblem names.
void to_json(nlohmann::json& j, const ParametricFilterSpec& f);
void from_json(const nlohmann::json& j, ParametricFilterSpec& f);

void to_json(nlohmann::json& j, const EQBandState& b);
void from_json(const nlohmann::json& j, EQBandState& b);

void to_json(nlohmann::json& j, const HeadphoneWearStyle& s);
void from_json(const nlohmann::json& j, HeadphoneWearStyle& s);

// The preamp and every filter are range-checked (ValueRangeError).
void to_json(nlohmann::json& j, const HeadphoneProfile& p);
void from_json(const nlohmann::json& j, HeadphoneProfile& p);

// Tolerant of older saved shapes: hard-required keys fail the route; "kind", the output
// target, "correctionProfileID", "health" and "importedProfileName" default when missing but
// fail when malformed; every other key falls back to its default on any error. The AI Tune
// vectors must hold exactly ten entries, and per-channel deltas are cut to ten finite values.
// The filters a route carries are the desk's own record and are not range-checked here: the
// chain leaves out a section it cannot run, and the route shows it, rather than a whole saved
// desk being refused for one value.
void to_json(nlohmann::json& j, const AppRoute& r);
void from_json(const nlohmann::json& j, AppRoute& r);

// "parametricFilters" and "parametricPreampDb" fall back to none and 0 when missing or of the
// wrong type, but a value out of range fails the preset (ValueRangeError); every other key
// except the optional "correctionProfileID" is required.
void to_json(nlohmann::json& j, const EQPreset& p);
void from_json(const nlohmann::json& j, EQPreset& p);

void to_json(nlohmann::json& j, const ListeningGenreHistory& h);
void from_json(const nlohmann::json& j, ListeningGenreHistory& h);

} // namespace tarn
