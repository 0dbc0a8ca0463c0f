#include "app/RouteAITune.hpp"

#include <cmath>

#include "app/RouteChainSettings.hpp"
#include "core/io/JsonCodecs.hpp"
#include "core/models/Date.hpp"
#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "core/recommendation/HeadphoneTraits.hpp"
#include "core/recommendation/RecommendationRuleEngine.hpp"
#include "core/recommendation/SongMemory.hpp"
#include "core/recommendation/SongMemoryStore.hpp"

namespace tarn {

namespace {

// A genre the listener asked AI Tune to prefer leans the song rules its way at full weight.
constexpr double preferredGenreLeanWeight = 1.0;

} // namespace

struct RouteAITune::RouteState {
    std::shared_ptr<BandProminenceAnalyzer> analyzer = std::make_shared<BandProminenceAnalyzer>();
    BandReasons reasons;
    std::optional<NowPlaying> nowPlaying;
    std::optional<std::vector<double>> learnedCurveDb;
};

RouteAITune::RouteAITune(PreferencesStore preferences, SongMemoryStore* songMemory)
    : songMemory_(songMemory), habits_(preferences, std::string(ListeningHabits::key)),
      genreHistory_(preferences, std::string(ListeningGenreHistory::key)) {}

RouteAITune::~RouteAITune() = default;

RouteAITune::RouteState& RouteAITune::state(const UUID& routeID) {
    auto& slot = routes_[routeID];
    if (!slot) slot = std::make_unique<RouteState>();
    return *slot;
}

std::shared_ptr<AnalysisTap> RouteAITune::tapFor(const UUID& routeID) {
    auto& analyzer = state(routeID).analyzer;
    // Shares the analyser's life: an engine that still runs keeps what it writes into alive.
    return std::shared_ptr<AnalysisTap>(analyzer, &analyzer->tap());
}

void RouteAITune::routeStarted(const UUID& routeID, double sampleRate, bool isTuned) {
    routeStopped(routeID);
    setTuned(routeID, isTuned, sampleRate);
}

void RouteAITune::setTuned(const UUID& routeID, bool isTuned, double sampleRate) {
    auto& s = state(routeID);
    if (!isTuned) {
        routeStopped(routeID);
        return;
    }
    if (s.analyzer->isRunning()) return;
    s.analyzer->start(sampleRate);
    s.analyzer->setTimelineRecording(s.nowPlaying.has_value());
    s.analyzer->tap().setEnabled(true);
}

void RouteAITune::routeStopped(const UUID& routeID) {
    auto it = routes_.find(routeID);
    if (it == routes_.end()) return;
    it->second->analyzer->tap().setEnabled(false);
    it->second->analyzer->stop();
}

void RouteAITune::forget(const UUID& routeID) { routes_.erase(routeID); }

ProminenceSnapshot RouteAITune::snapshot(const UUID& routeID) const {
    auto it = routes_.find(routeID);
    return it == routes_.end() ? ProminenceSnapshot::empty() : it->second->analyzer->snapshot();
}

void RouteAITune::drainNow(const UUID& routeID) {
    if (auto it = routes_.find(routeID); it != routes_.end()) it->second->analyzer->drainAvailableWindows();
}

std::optional<RouteAITune::Proposal> RouteAITune::propose(const AppRoute& route, double sampleRate) {
    if (!route.aiTuneScope) return std::nullopt;
    auto it = routes_.find(route.id);
    if (it == routes_.end()) return std::nullopt;
    auto& s = *it->second;
    const ProminenceSnapshot snap = s.analyzer->snapshot();

    RecommendationInput input;
    input.prominenceDb = RecommendationRuleEngine::padded(snap.prominenceDb);
    input.prominenceConfident = snap.isConfident;
    if (!route.correctionBypassed)
        if (auto profile = RouteChainSettings::correctionProfile(route))
            input.headphone = HeadphoneTraits::from(*profile, sampleRate > 0 ? sampleRate : 48000.0);
    input.userBiasDb = habits_.value().biasDb;
    if (s.learnedCurveDb) {
        input.learnedWarmupCurveDb = s.learnedCurveDb;
        input.learnedWarmupProvenance = std::string(songMemoryProvenance);
    }
    for (const auto& band : route.customEQBands) input.currentGainsDb.push_back(band.gainDb);
    for (int band = 0; band < TenBandLayout::bandCount; ++band)
        if (route.isBandAILocked(band)) input.lockedBands.insert(band);
    input.genre = route.aiGenrePreference.value_or(route.selectedGenre);
    if (route.aiGenrePreference) input.genreLeanWeight = preferredGenreLeanWeight;

    Proposal proposal;
    proposal.tweaksDb.assign(TenBandLayout::bandCount, 0.0);
    for (const auto& rec : RecommendationRuleEngine::recommend(input, *route.aiTuneScope)) {
        if (rec.bandIndex < 0 || rec.bandIndex >= TenBandLayout::bandCount) continue;
        const auto band = std::size_t(rec.bandIndex);
        proposal.tweaksDb[band] = rec.gainDb;
        proposal.reasons[band] = rec.rationale;
        if (rec.gainDb != 0.0 && !route.isBandAILocked(rec.bandIndex)) proposal.workingBands.insert(rec.bandIndex);
    }
    s.reasons = proposal.reasons;
    return proposal;
}

RouteAITune::BandReasons RouteAITune::reasons(const UUID& routeID) const {
    auto it = routes_.find(routeID);
    return it == routes_.end() ? BandReasons{} : it->second->reasons;
}

const std::optional<RouteAITune::NowPlaying>& RouteAITune::nowPlaying(const UUID& routeID) const {
    static const std::optional<NowPlaying> none;
    auto it = routes_.find(routeID);
    return it == routes_.end() ? none : it->second->nowPlaying;
}

std::optional<std::vector<double>> RouteAITune::trackChanged(const AppRoute& route,
                                                             const std::optional<NowPlaying>& track) {
    auto& s = state(route.id);
    if (s.nowPlaying == track) return s.learnedCurveDb;

    // The song that ends is learnt from what the analyser heard of it.
    if (s.nowPlaying && songMemory_) {
        const ProminenceSnapshot snap = s.analyzer->snapshot();
        if (snap.isConfident) {
            const auto timeline = SongMemory::quantizedTimeline(s.analyzer->timelineSnapshot());
            std::optional<std::string> genre;
            if (!s.nowPlaying->genre.empty()) genre = s.nowPlaying->genre;
            songMemory_->record(SongMemoryStore::key(s.nowPlaying->title, s.nowPlaying->artist), snap.prominenceDb,
                                route.aiTuneTweaksDb, timeline, genre, s.nowPlaying->durationSeconds);
        }
    }

    s.nowPlaying = track;
    s.learnedCurveDb.reset();
    s.analyzer->reset();
    s.analyzer->setTimelineRecording(track.has_value());
    if (!track) return std::nullopt;

    if (!track->genre.empty()) {
        genreHistory_.edit().record(track->genre, track->artist.empty() ? std::nullopt
                                                                        : std::optional<std::string_view>(track->artist),
                                    Date::now());
        genreHistory_.save();
    }
    if (songMemory_)
        if (auto memory = songMemory_->memory(SongMemoryStore::key(track->title, track->artist)))
            if (SongMemoryStore::classify(*memory) != SongMemoryHealth::broken) s.learnedCurveDb = memory->curveDb;
    return s.learnedCurveDb;
}

void RouteAITune::recordHabit(int band, double gainDb) {
    habits_.edit().record(band, gainDb);
    habits_.save();
}

std::optional<GenrePreset> RouteAITune::suggestedGenre() const {
    if (auto suggestion = genreHistory_.value().suggestedPreset()) return suggestion->first;
    return std::nullopt;
}

} // namespace tarn
