#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "app/DeskLayouts.hpp"
#include "app/LiveRoute.hpp"
#include "app/ProcessTree.hpp"
#include "app/QueueTimer.hpp"
#include "app/RouteAITune.hpp"
#include "app/RouteGlides.hpp"
#include "app/RouteResponseCurve.hpp"
#include "app/VoiceShaping.hpp"
#include "core/audio/AudioOutputDeviceService.hpp"
#include "core/audio/MainQueue.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"
#include "core/dsp/UptimeClock.hpp"
#include "core/io/ImportedEQ.hpp"
#include "core/io/PreferencesStore.hpp"
#include "core/io/PresetStore.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/EQPreset.hpp"
#include "core/io/Lyrics.hpp"
#include "player/AudioFileTags.hpp"
#include "player/DeckPlayback.hpp"

namespace tarn {

class AudioPlatform;
class SongMemoryStore;

// The desk's heart: the ordered routes and the selection, one live route (engine and chain) per
// route that runs, the processes that play, and every edit applied to the sound as it plays.
// Starts, pauses, resumes and stops routes as their applications come and go, and saves the
// whole state (debounced) so it survives restarts.
//
// Control thread only: timers, saves and discovery changes arrive through the main queue.
// Operations on a route id that is not in `routes` do nothing and answer false (commands answer
// `routeMissingText`).
class RouteStore {
public:
    // Texts kept in `lastStartError` or returned to a command.
    static constexpr std::string_view noOutputDeviceText = "no output device";
    static constexpr std::string_view outputDeviceUnavailableText = "output device unavailable";
    static constexpr std::string_view outputStreamUnavailableText = "output stream unavailable";
    static constexpr std::string_view sourceAppStoppedText = "source app stopped";
    static constexpr std::string_view appNotRunningText = "app not running";
    static constexpr std::string_view routeMissingText = "That route doesn't exist anymore.";
    static constexpr std::string_view captureRefusedText =
        "audio capture refused: the sound server does not let Tarn move or record other applications' streams";

    static constexpr double saveDelaySeconds = 0.35;
    static constexpr double autoPollSeconds = 5.0;
    // Health checks of the live routes (signal confirmed, engines the server stopped).
    static constexpr double healthCheckSeconds = 1.0;
    // An input peak above this (−80 dBFS) confirms that audio flows through a route.
    static constexpr double verifiedInputPeak = 1.0e-4;

    // What changed, for observers (views redraw that part).
    enum class Change { routes, selection, processes, devices, liveEngines, errors, broadcastPaused, layouts, presets, deck };

    struct Options {
        UptimeClock clock;
        const ProcessTree* processTree = &ProcessTree::system();
        // Where AI Tune remembers songs; none: it does not.
        SongMemoryStore* songMemory = nullptr;
    };

    RouteStore(AudioPlatform& platform, MainQueue& mainQueue, PreferencesStore preferences, Options options);
    RouteStore(AudioPlatform& platform, MainQueue& mainQueue, PreferencesStore preferences)
        : RouteStore(platform, mainQueue, std::move(preferences), Options{}) {}
    // Stops every route (the applications go back to their normal output) and writes a pending save.
    ~RouteStore();
    RouteStore(const RouteStore&) = delete;
    RouteStore& operator=(const RouteStore&) = delete;

    // Restores the saved routes (each idle) and starts watching processes and devices. No route
    // is started by the restore; `activateRestoredRoutes` does that.
    void start();
    // Routes in `on` mode start; `auto` routes start when their application sounds.
    void activateRestoredRoutes();

    // ---- observable state ----
    const std::vector<AppRoute>& routes() const { return routes_; }
    const AppRoute* route(const UUID& id) const;
    const std::optional<UUID>& selectedRouteID() const { return selectedRouteID_; }
    const std::vector<ProcessDiscoveryService::Entry>& availableProcesses() const { return availableProcesses_; }
    const std::set<UUID>& liveEngines() const { return liveEngines_; }
    const std::map<UUID, std::string>& lastStartError() const { return lastStartError_; }
    const std::set<std::string>& broadcastPausedBundles() const { return broadcastPausedBundles_; }
    const std::optional<UUID>& activeLayoutID() const { return layouts_.activeLayoutID(); }
    const std::vector<OutputDeviceInfo>& outputDevices() const;
    std::function<void(Change)> onChange;

    // The running chain of a route (its meters), or nullptr.
    RouteDSPChain* dspChain(const UUID& id) const;
    // The live route behind a route (running or paused), or nullptr.
    const LiveRoute* liveRoute(const UUID& id) const;

    // ---- the route list ----
    // A new route for an application (identity and name as discovery lists them). Throws
    // std::invalid_argument for an empty identity or one that already has a route.
    UUID addRoute(const std::string& bundleID, const std::string& displayName,
                                 std::optional<std::string> deviceUID = std::nullopt,
                                 std::optional<std::uint32_t> streamIndex = std::nullopt);
    bool removeRoute(const UUID& id);
    // Moves the route to `index` in user order (clamped to the list).
    bool moveRoute(const UUID& id, std::size_t index);
    // None clears the selection; an unknown id changes nothing and answers false.
    bool selectRoute(const std::optional<UUID>& id);

    // ---- starting and stopping ----
    bool startAudio(const UUID& id, bool forceRestart);
    bool stopAudio(const UUID& id);
    void restartLiveRoutes();
    bool setActivationMode(RouteActivationMode mode, const UUID& id);

    // ---- edits (each saves, debounced; a live route hears it at once) ----
    bool setGain(const UUID& id, double gainDb);
    bool setMuted(const UUID& id, bool muted);
    bool requestBandGain(int bandID, double gainDb, const UUID& id, bool glide = true);
    bool requestTrim(const UUID& id, double trimDb);
    bool setEQBypassed(const UUID& id, bool bypassed);
    bool setCorrectionBypassed(const UUID& id, bool bypassed);
    bool setChannelDelta(const UUID& id, int channel, int band, double deltaDb);
    bool setGenre(GenrePreset genre, const UUID& id);
    bool setOutputDevice(const UUID& id, std::optional<std::string> deviceUID, std::optional<std::uint32_t> streamIndex);
    // A catalogue id; none removes the correction. Throws std::invalid_argument for an id the
    // catalogue does not hold (the route keeps its correction).
    bool setCorrectionProfile(const UUID& id, const std::optional<std::string>& catalogueID);
    // A profile from elsewhere (a file): the route keeps it as its snapshot.
    bool setCorrectionProfile(const UUID& id, const HeadphoneProfile& profile);
    // None removes the imported EQ.
    bool setImportedEQ(const UUID& id, const std::optional<ImportedEQ>& eq);

    // ---- presets ----
    const std::vector<EQPreset>& presets() const { return presets_.presets(); }
    // Reads, parses and saves the file as a preset; errors pass to the caller.
    EQPreset importEQFile(const std::filesystem::path& path);
    // Saves an EQ already read as a preset. Throws std::invalid_argument when it has no filter.
    EQPreset importEQ(const ImportedEQ& eq);
    std::optional<EQPreset> saveCurrentAsPreset(const std::string& name, const UUID& id);
    bool deletePreset(const UUID& presetID);
    // Bands, genre, correction, trim and parametric filters of the preset; false when either is unknown.
    bool applyPreset(const UUID& presetID, const UUID& id);

    // ---- voice and shortcut commands ----
    std::string siriShapeBands(const std::map<int, double>& description, const UUID& id);
    std::string siriAdjustLoudness(bool up, const UUID& id);

    // ---- AI Tune ----
    static constexpr double aiTuneTickSeconds = 0.5;
    // None switches the AI layer off (the bands go back to the user's own gains).
    bool setAITuneScope(const UUID& id, std::optional<RecommendationScope> scope);
    bool setBandAILocked(const UUID& id, int band, bool locked);
    bool setAIGenrePreference(const UUID& id, std::optional<GenrePreset> genre);
    // Why each band of the route's AI layer is where it is.
    RouteAITune::BandReasons aiTuneReasons(const UUID& id) const { return aiTune_.reasons(id); }
    RouteAITune& aiTune() { return aiTune_; }
    // The listener's preferred genre preset, once enough tracks were heard.
    std::optional<GenrePreset> suggestedGenre() const { return aiTune_.suggestedGenre(); }
    // One AI Tune pass over the live routes (the 500 ms tick; tests call it directly).
    void applyAITune();

    // ---- the response graph ----
    // How the route's equalisers shape channel `channel` at `frequenciesHz`, stage by stage: on
    // its running chain (the rate and channels it plays at) or, when it does not run, on a chain
    // built from its settings for the output it last had. Bands still gliding are shown where
    // they land. None for an unknown route; throws std::out_of_range for a channel it does not
    // have.
    std::optional<RouteResponseCurve> responseCurve(const UUID& id, int channel,
                                                    std::span<const double> frequenciesHz) const;

    // ---- now playing (from the desk service's observer of music players) ----
    // The track an application plays now (none: nothing). Song memory learns the track that
    // ends and replays the curve of one it remembers.
    void setNowPlaying(const std::string& bundleID, const std::optional<RouteAITune::NowPlaying>& track);
    // An application's player reports paused (true) or playing (false).
    void setBroadcastPaused(const std::string& bundleID, bool paused);

    // ---- the player deck ----
    // How often the deck is looked after while it plays (track changes, the end of the queue).
    static constexpr double deckPollSeconds = 0.1;
    // The deck's route ("Player deck"), made the first time the deck is used.
    UUID deckRoute();
    // Files and folders (every audio file in them, by name, folders within folders too), in
    // order; `append` keeps the queue and adds to it. Throws std::invalid_argument naming what
    // is neither a file nor a folder, or when nothing playable is given.
    std::size_t deckOpen(const std::vector<std::filesystem::path>& paths, bool append);
    // Entry `index`, or resume, or the queue's start. False when nothing could be played; throws
    // std::runtime_error (the output's refusal) when the device does not take the output.
    bool deckPlay(std::optional<int> index = std::nullopt);
    void deckPause();
    void deckStop();
    bool deckNext();
    bool deckPrevious();
    void deckSeek(double seconds);
    void deckMove(int from, int to);
    void deckSetRepeat(DeckPlayback::Repeat repeat);
    void deckSetShuffle(bool on);
    // Null until the deck is first used.
    const DeckPlayback* deck() const { return deck_.get(); }
    // What the track the deck plays (or last played) says about itself; none when nothing is
    // loaded. Its cover is written to `deckArtFile` (for players and widgets that want a file).
    struct DeckTrack {
        int index = -1;
        std::filesystem::path path;
        AudioFileTags tags;
        std::optional<std::filesystem::path> artFile;
        Lyrics lyrics; // from an .lrc file beside it, else from its tags
    };
    const DeckTrack* deckTrack();
    // The extensions a folder's files are queued by.
    static bool isPlayableFile(const std::filesystem::path& path);

    // ---- desk layouts ----
    const std::vector<DeskLayout>& layouts() const { return layouts_.layouts(); }
    // The desk as it is now, as a layout; bound to a device, it comes back whenever that
    // device appears.
    UUID saveLayout(const std::string& name, std::optional<std::string> boundDeviceUID = std::nullopt);
    // The layout's routes, each where the layout has it play; routes it does not hold go (the
    // desk as it was comes back when a bound layout's device goes away).
    bool applyLayout(const UUID& layoutID);
    bool deleteLayout(const UUID& layoutID);
    bool bindLayout(const UUID& layoutID, std::optional<std::string> deviceUID);

    // ---- persistence ----
    void scheduleStatePersist();
    void persistStateNow();
    bool isSavePending() const { return saveTimer_.isActive(); }
    bool isRestoringState() const { return isRestoringState_; }
    const RouteGlides& glides() const { return glides_; }
    // Why the last save did not reach the disk, if it did not.
    const std::optional<std::string>& lastSaveProblem() const { return lastSaveProblem_; }

    // ---- what the timers and listeners run (tests call them directly) ----
    void handleDiscoveryChange();
    void handleDeviceChange();
    void reconcileAutoRoutes();
    void checkLiveRoutes();

private:
    template <typename Edit>
    bool edit(const UUID& id, Edit&& change);
    VoiceShapingState voiceState(const AppRoute& route) const;
    void applyVoiceResult(const UUID& id, const VoiceShapingResult& result);
    AppRoute* mutableRoute(const UUID& id);
    void changed(Change change);
    void editRoute(const UUID& id);   // routes changed + save
    void setHealth(AppRoute& route, RouteHealth health);
    void setError(const UUID& id, std::optional<std::string> text);
    void markStopped(const UUID& id);
    // A chain with the route's settings, at the rate chains are designed at until a stream says
    // otherwise.
    std::shared_ptr<RouteDSPChain> makeChain(const UUID& id, int channelCount) const;
    const ProcessDiscoveryService::Entry* processFor(const AppRoute& route) const;
    bool isSounding(const AppRoute& route) const;
    bool captureAllowed();
    void applyStartFailure(AppRoute& route, const LiveRoute::Error& error);
    // `engineIsNew`: the route got a new engine (a start, a restart, a move).
    void afterStart(AppRoute& route, LiveRoute& live, bool engineIsNew);
    void updateAITicks();
    void dropQuitApplications();
    void retryRefusedCapture();
    void replaceRoutes(const std::vector<AppRoute>& wanted);
    void followLayoutDevices();
    void pauseRoute(AppRoute& route);
    void updateAutoPolling();
    void updateHealthChecks();
    void restorePersistedState();
    void glideBandsToRoute(const AppRoute& route);
    DeckPlayback& ensureDeck();
    void pollDeck();
    void placeDeck();
    bool isDeckRoute(const UUID& id) const {
        const AppRoute* r = route(id);
        return r && r->kind == RouteKind::localPlayer;
    }

    AudioPlatform& platform_;
    MainQueue& mainQueue_;
    Options options_;
    PreferencesStore preferences_;
    PresetStore presets_;
    ProcessDiscoveryService discovery_;
    AudioOutputDeviceService devices_;

    std::vector<AppRoute> routes_;
    std::optional<UUID> selectedRouteID_;
    std::vector<ProcessDiscoveryService::Entry> availableProcesses_;
    std::set<UUID> liveEngines_;
    std::map<UUID, std::string> lastStartError_;
    std::set<std::string> broadcastPausedBundles_;

    std::map<UUID, std::unique_ptr<LiveRoute>> liveRoutes_;
    // Routes lost because their application quit or was not running: they start again when it
    // comes back.
    std::set<UUID> awaitingApplication_;
    // Routes that found no output device at all: they start when one appears.
    std::set<UUID> awaitingDevice_;
    // Routes refused capture: asked again when the sound server's picture changes (a session
    // manager that has just started grants it a moment later).
    std::set<UUID> awaitingCapture_;
    // Automatic starts and pauses wait until the restored routes were activated.
    bool isActivated_ = false;
    std::optional<bool> captureGranted_;
    RouteGlides glides_;
    RouteAITune aiTune_;
    DeskLayouts layouts_;
    QueueTimer aiTimer_;
    QueueTimer autoPollTimer_;
    QueueTimer healthTimer_;
    QueueTimer saveTimer_;
    QueueTimer deckTimer_;
    std::unique_ptr<DeckPlayback> deck_;
    DeckPlayback::State lastDeckState_ = DeckPlayback::State::stopped;
    std::optional<DeckTrack> deckTrack_;
    int lastDeckTrack_ = -1;
    bool isRestoringState_ = false;
    std::optional<std::string> lastWrittenBytes_;
    bool setAsideBeforeSave_ = false;
    std::optional<std::string> lastSaveProblem_;
};

} // namespace tarn
