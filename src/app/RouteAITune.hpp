#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/ListeningHabits.hpp"
#include "app/PreferenceDocument.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/ListeningGenreHistory.hpp"
#include "core/recommendation/ProminenceSnapshot.hpp"

namespace tarn {

class AnalysisTap;
class BandProminenceAnalyzer;
class SongMemoryStore;

// AI Tune on live routes. Each live route feeds a band prominence analyser through its
// AnalysisTap (the audio as the application played it); the analyser ticks every 500 ms on its
// own worker. For a route with a scope engaged, `propose` turns the latest snapshot, the route's
// headphone, the listener's habits and taste (or a curve learnt for the playing song) into the
// route's AI layer, with the reasons of every band.
//
// It also keeps what AI Tune learns from listening: song memory (the curve and timeline of each
// song, merged over plays) and the listening genre history, both fed from now playing.
//
// Control thread only (the analysers' own workers aside).
class RouteAITune {
public:
    using BandReasons = std::array<std::vector<std::string>, TenBandLayout::bandCount>;

    struct Proposal {
        std::vector<double> tweaksDb;   // ten whole-dB values
        BandReasons reasons;
        std::set<int> workingBands;     // bands AI Tune moves (the beat meter follows them)
    };

    struct NowPlaying {
        std::string title;
        std::string artist;
        std::string genre;
        std::optional<double> durationSeconds;
        std::string album;
        bool operator==(const NowPlaying&) const = default;
    };

    static constexpr std::string_view songMemoryProvenance =
        "Song in memory — AI Tune replays this track with the curve it learned last time.";

    // `songMemory` may be null (no learning of songs).
    RouteAITune(PreferencesStore preferences, SongMemoryStore* songMemory);
    ~RouteAITune();
    RouteAITune(const RouteAITune&) = delete;
    RouteAITune& operator=(const RouteAITune&) = delete;

    // The tap a route's engines feed (made on first use, kept with the route).
    std::shared_ptr<AnalysisTap> tapFor(const UUID& routeID);
    // A route got a new engine at this rate. The analyser listens only while AI Tune is engaged
    // on the route: a desk of untuned routes costs no analysis at all.
    void routeStarted(const UUID& routeID, double sampleRate, bool isTuned);
    void setTuned(const UUID& routeID, bool isTuned, double sampleRate);
    void routeStopped(const UUID& routeID);
    void forget(const UUID& routeID);

    ProminenceSnapshot snapshot(const UUID& routeID) const;
    // Analyses everything the tap collected, now (tests; the worker does it every 500 ms).
    void drainNow(const UUID& routeID);

    // The AI layer for a route with a scope engaged; none without a scope or analyser.
    std::optional<Proposal> propose(const AppRoute& route, double sampleRate);
    // The reasons of the last proposal for a route (empty lists before the first).
    BandReasons reasons(const UUID& routeID) const;

    // A new track on a route (none: nothing plays). The track that ends is merged into song
    // memory; returns the curve learnt for the new one, when it is remembered.
    std::optional<std::vector<double>> trackChanged(const AppRoute& route, const std::optional<NowPlaying>& track);
    const std::optional<NowPlaying>& nowPlaying(const UUID& routeID) const;

    void recordHabit(int band, double gainDb);
    const ListeningHabits& habits() const { return habits_.value(); }
    const ListeningGenreHistory& genreHistory() const { return genreHistory_.value(); }
    // The genre the listener plays most, once enough tracks were heard.
    std::optional<GenrePreset> suggestedGenre() const;

private:
    struct RouteState;
    RouteState& state(const UUID& routeID);

    SongMemoryStore* songMemory_;
    PreferenceDocument<ListeningHabits> habits_;
    PreferenceDocument<ListeningGenreHistory> genreHistory_;
    std::map<UUID, std::unique_ptr<RouteState>> routes_;
};

} // namespace tarn
