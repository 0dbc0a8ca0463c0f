// The route store's edits, presets and voice commands: find the route, let RouteEdits change
// its settings and live chain, save. The lifecycle half of the store is in RouteStore.cpp.

#include <algorithm>
#include <stdexcept>

#include "app/RouteChainSettings.hpp"
#include "app/RouteEdits.hpp"
#include "app/RouteStore.hpp"
#include "app/VoiceShaping.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "core/io/AutoEqParser.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn {

namespace {

bool isBand(int band) { return band >= 0 && band < TenBandLayout::bandCount; }

} // namespace

template <typename Edit>
bool RouteStore::edit(const UUID& id, Edit&& change) {
    AppRoute* r = mutableRoute(id);
    if (!r) return false;
    change(RouteEdits::Target{*r, dspChain(id), glides_});
    editRoute(id);
    return true;
}

bool RouteStore::setGain(const UUID& id, double gainDb) {
    return edit(id, [&](auto t) { RouteEdits::setGain(t, gainDb); });
}

bool RouteStore::setMuted(const UUID& id, bool muted) {
    return edit(id, [&](auto t) { RouteEdits::setMuted(t, muted); });
}

bool RouteStore::requestBandGain(int bandID, double gainDb, const UUID& id, bool glide) {
    if (!isBand(bandID)) return false;
    return edit(id, [&](auto t) { RouteEdits::setBandGain(t, bandID, gainDb, glide); });
}

bool RouteStore::requestTrim(const UUID& id, double trimDb) {
    return edit(id, [&](auto t) { RouteEdits::setTrim(t, trimDb); });
}

bool RouteStore::setEQBypassed(const UUID& id, bool bypassed) {
    return edit(id, [&](auto t) { RouteEdits::setEQBypassed(t, bypassed); });
}

bool RouteStore::setCorrectionBypassed(const UUID& id, bool bypassed) {
    return edit(id, [&](auto t) { RouteEdits::setCorrectionBypassed(t, bypassed); });
}

bool RouteStore::setChannelDelta(const UUID& id, int channel, int band, double deltaDb) {
    if (!isBand(band) || channel < 0 || channel >= RouteEdits::maxChannels) return false;
    return edit(id, [&](auto t) { RouteEdits::setChannelDelta(t, channel, band, deltaDb); });
}

bool RouteStore::setGenre(GenrePreset genre, const UUID& id) {
    return edit(id, [&](auto t) { RouteEdits::setGenre(t, genre); });
}

bool RouteStore::setCorrectionProfile(const UUID& id, const std::optional<std::string>& catalogueID) {
    if (!route(id)) return false;
    std::optional<HeadphoneProfile> profile;
    if (catalogueID) {
        const HeadphoneProfile* found = BundledProfileCatalog::shared().profile(*catalogueID);
        if (!found) throw std::invalid_argument("no headphone \"" + *catalogueID + "\" in the catalogue");
        profile = *found;
    }
    return edit(id, [&](auto t) { RouteEdits::setCorrectionProfile(t, profile); });
}

bool RouteStore::setCorrectionProfile(const UUID& id, const HeadphoneProfile& profile) {
    return edit(id, [&](auto t) { RouteEdits::setCorrectionProfile(t, profile); });
}

bool RouteStore::setImportedEQ(const UUID& id, const std::optional<ImportedEQ>& eq) {
    return edit(id, [&](auto t) { RouteEdits::setImportedEQ(t, eq); });
}

bool RouteStore::setOutputDevice(const UUID& id, std::optional<std::string> deviceUID,
                                 std::optional<std::uint32_t> streamIndex) {
    AppRoute* r = mutableRoute(id);
    if (!r) return false;
    if (deviceUID && deviceUID->empty()) deviceUID.reset();
    if (!deviceUID) streamIndex.reset();
    r->targetOutputDeviceID = deviceUID;
    r->targetOutputStreamIndex = streamIndex;
    editRoute(id);
    if (r->kind == RouteKind::localPlayer) placeDeck();
    // A paused route takes the new place when it resumes.
    if (auto it = liveRoutes_.find(id); it != liveRoutes_.end()) {
        auto move = it->second->setPlacement({deviceUID, streamIndex, true});
        if (it->second->isRunning() && (move.moved || !move.failure)) afterStart(*r, *it->second, move.moved);
    }
    return true;
}

// ---- presets -------------------------------------------------------------------------------------

EQPreset RouteStore::importEQFile(const std::filesystem::path& path) {
    const ImportedEQ eq = AutoEqParser::parseParametricFile(path);
    if (eq.filters.empty()) throw std::invalid_argument(path.string() + ": no filter line (\"Filter N: ON PK Fc …\")");
    return importEQ(eq);
}

EQPreset RouteStore::importEQ(const ImportedEQ& eq) {
    if (eq.filters.empty()) throw std::invalid_argument("no filter line (\"Filter N: ON PK Fc …\")");
    EQPreset preset = EQPreset::imported(eq);
    presets_.save(preset);
    return preset;
}

std::optional<EQPreset> RouteStore::saveCurrentAsPreset(const std::string& name, const UUID& id) {
    const AppRoute* r = route(id);
    if (!r) return std::nullopt;
    EQPreset preset;
    preset.id = UUID::random();
    preset.name = name;
    preset.createdAt = Date::now();
    for (const auto& band : r->customEQBands) preset.bandGains.push_back(band.gainDb);
    preset.selectedGenre = r->selectedGenre;
    preset.correctionProfileID = r->correctionProfileID;
    preset.outputTrimDb = r->outputTrimDb;
    preset.parametricFilters = r->importedParametricFilters;
    preset.parametricPreampDb = r->importedParametricPreampDb;
    presets_.save(preset);
    return preset;
}

bool RouteStore::deletePreset(const UUID& presetID) { return presets_.remove(presetID) > 0; }

bool RouteStore::applyPreset(const UUID& presetID, const UUID& id) {
    const EQPreset* preset = presets_.preset(presetID);
    if (!preset || !route(id)) return false;
    std::optional<HeadphoneProfile> correction;
    if (preset->correctionProfileID)
        if (const auto* found = BundledProfileCatalog::shared().profile(*preset->correctionProfileID)) correction = *found;
    const EQPreset copy = *preset;
    return edit(id, [&](auto t) { RouteEdits::applyPreset(t, copy, correction); });
}

// ---- AI Tune ------------------------------------------------------------------------------------

bool RouteStore::setAITuneScope(const UUID& id, std::optional<RecommendationScope> scope) {
    const bool known = edit(id, [&](auto t) { RouteEdits::setAITuneScope(t, scope); });
    if (auto* chain = dspChain(id)) aiTune_.setTuned(id, scope.has_value(), chain->sampleRate());
    if (known && scope) applyAITune();
    updateAITicks();
    return known;
}

bool RouteStore::setBandAILocked(const UUID& id, int band, bool locked) {
    if (!isBand(band)) return false;
    return edit(id, [&](auto t) { t.route.aiLockedBands[std::size_t(band)] = locked; });
}

bool RouteStore::setAIGenrePreference(const UUID& id, std::optional<GenrePreset> genre) {
    return edit(id, [&](auto t) { t.route.aiGenrePreference = genre; });
}

void RouteStore::updateAITicks() {
    const bool anyTuning = std::any_of(liveEngines_.begin(), liveEngines_.end(), [this](const UUID& id) {
        const AppRoute* r = route(id);
        return r && r->aiTuneScope;
    });
    if (!anyTuning) aiTimer_.cancel();
    else if (!aiTimer_.isActive()) aiTimer_.startRepeating(aiTuneTickSeconds, [this] { applyAITune(); });
}

void RouteStore::applyAITune() {
    for (const UUID& id : liveEngines_) {
        AppRoute* r = mutableRoute(id);
        RouteDSPChain* chain = dspChain(id);
        if (!r || !chain || !r->aiTuneScope) continue;
        const auto proposal = aiTune_.propose(*r, chain->sampleRate());
        if (!proposal) continue;
        // The beat meter pulses on the bands AI Tune is working on.
        chain->beatMeter().setActiveBands(proposal->workingBands);
        chain->beatMeter().setEnabled(true);
        if (RouteEdits::setAITweaks({*r, chain, glides_}, proposal->tweaksDb)) editRoute(id);
    }
}

void RouteStore::setNowPlaying(const std::string& bundleID, const std::optional<RouteAITune::NowPlaying>& track) {
    for (auto& r : routes_) {
        if (r.bundleID != bundleID) continue;
        const auto learned = aiTune_.trackChanged(r, track);
        // A remembered song needs no warm-up: its curve comes back at once.
        if (learned && r.aiTuneScope) edit(r.id, [&](auto t) { RouteEdits::setAITweaks(t, *learned); });
    }
}

// ---- voice and shortcut commands -------------------------------------------------------------------

VoiceShapingState RouteStore::voiceState(const AppRoute& r) const {
    VoiceShapingState state;
    for (int band = 0; band < TenBandLayout::bandCount && band < int(r.customEQBands.size()); ++band)
        state.bandGainsDb[std::size_t(band)] = r.customEQBands[std::size_t(band)].gainDb;
    for (int band = 0; band < TenBandLayout::bandCount && band < int(r.aiTuneTweaksDb.size()); ++band)
        state.aiTweaksDb[std::size_t(band)] = r.aiTuneTweaksDb[std::size_t(band)];
    state.isAITuneEngaged = r.aiTuneScope.has_value();
    state.trimDb = glides_.trimTarget(r.id).value_or(r.outputTrimDb);
    if (auto* chain = dspChain(r.id)) state.outputPeak = chain->outputMeter().currentPeak();
    return state;
}

void RouteStore::applyVoiceResult(const UUID& id, const VoiceShapingResult& result) {
    edit(id, [&](auto t) {
        for (const auto& [band, gain] : result.bandGainsDb) RouteEdits::setBandGain(t, band, gain, false);
        for (const auto& [band, tweak] : result.aiTweaksDb) RouteEdits::setAITweak(t, band, tweak);
        if (result.trimDb) RouteEdits::setTrim(t, *result.trimDb);
    });
    if (const AppRoute* r = route(id))
        for (int band : result.habitBands) aiTune_.recordHabit(band, r->customEQBands[std::size_t(band)].gainDb);
}

std::string RouteStore::siriShapeBands(const std::map<int, double>& description, const UUID& id) {
    const AppRoute* r = route(id);
    if (!r) return std::string(routeMissingText);
    const auto result = shapeBands(description, voiceState(*r));
    applyVoiceResult(id, result);
    return result.answer;
}

std::string RouteStore::siriAdjustLoudness(bool up, const UUID& id) {
    const AppRoute* r = route(id);
    if (!r) return std::string(routeMissingText);
    const auto result = adjustLoudness(up, voiceState(*r));
    applyVoiceResult(id, result);
    return result.answer;
}

} // namespace tarn
