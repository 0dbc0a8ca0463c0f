#pragma once

// JSON forms of the shared value records. Conventions of every persisted document:
// enumerations as raw-value strings, dates as seconds since 2001-01-01 UTC, absent optionals
// omitted, doubles written so that they read back to the same value.
//
// Decoding throws DecodingError (or nlohmann::json::exception for a missing key or a value of
// the wrong type); callers that must tolerate old or damaged documents catch and fall back.

#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "core/dsp/EQBandState.hpp"
#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/models/Date.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

struct DecodingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void to_json(nlohmann::json& j, const Date& d);
void from_json(const nlohmann::json& j, Date& d);

void to_json(nlohmann::json& j, const GenrePreset& g);
void from_json(const nlohmann::json& j, GenrePreset& g);

void to_json(nlohmann::json& j, const ParametricFilterSpec& f);
void from_json(const nlohmann::json& j, ParametricFilterSpec& f);

void to_json(nlohmann::json& j, const EQBandState& b);
void from_json(const nlohmann::json& j, EQBandState& b);

void to_json(nlohmann::json& j, const HeadphoneWearStyle& s);
void from_json(const nlohmann::json& j, HeadphoneWearStyle& s);

void to_json(nlohmann::json& j, const HeadphoneProfile& p);
void from_json(const nlohmann::json& j, HeadphoneProfile& p);

} // namespace tarn
