// The route store's player deck: one route of kind localPlayer, whose sound is a queue of local
// files played through that route's chain on that route's device.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>

#include <fmt/format.h>

#include "app/RouteStore.hpp"
#include "core/audio/OutputDeviceLookup.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/models/RouteKind.hpp"

namespace tarn {

namespace {

constexpr std::string_view deckDisplayName = "Player deck";

} // namespace

namespace {

// Where covers are written for others to show: $XDG_CACHE_HOME/tarn/art (else ~/.cache/tarn/art).
std::filesystem::path artFolder() {
    if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && *cache) return std::filesystem::path(cache) / "tarn" / "art";
    if (const char* home = std::getenv("HOME"); home && *home) return std::filesystem::path(home) / ".cache" / "tarn" / "art";
    return std::filesystem::temp_directory_path() / "tarn-art";
}

// The embedded cover as a file (written whole, then renamed into place), else a picture beside
// the song ("cover.jpg", "folder.jpg", …).
std::optional<std::filesystem::path> coverFile(const std::filesystem::path& song, const AudioFileTags& tags) {
    std::error_code ec;
    if (!tags.coverArt.empty()) {
        const auto folder = artFolder();
        std::filesystem::create_directories(folder, ec);
        const auto name = fmt::format("{:016x}{}", std::hash<std::string>{}(song.string() + ":" + std::to_string(tags.coverArt.size())),
                                      tags.coverArtMimeType == "image/png" ? ".png" : ".jpg");
        const auto file = folder / name;
        if (std::filesystem::exists(file, ec)) return file;
        const auto temporary = folder / (name + ".part");
        {
            std::ofstream out(temporary, std::ios::binary);
            out.write(reinterpret_cast<const char*>(tags.coverArt.data()), std::streamsize(tags.coverArt.size()));
            if (!out) return std::nullopt;
        }
        std::filesystem::rename(temporary, file, ec);
        if (!ec) return file;
        std::filesystem::remove(temporary, ec);
    }
    for (const char* name : {"cover.jpg", "cover.png", "folder.jpg", "folder.png", "front.jpg", "Cover.jpg", "Folder.jpg"})
        if (std::filesystem::is_regular_file(song.parent_path() / name, ec)) return song.parent_path() / name;
    return std::nullopt;
}

Lyrics lyricsFor(const std::filesystem::path& song, const AudioFileTags& tags) {
    std::error_code ec;
    auto lrc = song;
    lrc.replace_extension(".lrc");
    if (std::filesystem::is_regular_file(lrc, ec)) {
        std::ifstream in(lrc, std::ios::binary);
        std::string text(Lyrics::maxBytes, '\0');
        in.read(text.data(), std::streamsize(text.size()));
        text.resize(std::size_t(in.gcount()));
        return Lyrics::parse(text);
    }
    return Lyrics::parse(tags.lyrics);
}

} // namespace

const RouteStore::DeckTrack* RouteStore::deckTrack() {
    if (!deck_) return nullptr;
    const int index = deck_->status().trackIndex;
    if (index < 0 || std::size_t(index) >= deck_->queue().size()) return deckTrack_ ? &*deckTrack_ : nullptr;
    const auto& path = deck_->queue()[std::size_t(index)];
    if (!deckTrack_ || deckTrack_->path != path) {
        DeckTrack track;
        track.index = index;
        track.path = path;
        track.tags = AudioFileTags::read(path);
        track.artFile = coverFile(path, track.tags);
        track.lyrics = lyricsFor(path, track.tags);
        track.tags.coverArt.clear(); // kept as the file; no need to hold the bytes
        deckTrack_ = std::move(track);
    }
    deckTrack_->index = index;
    return &*deckTrack_;
}

bool RouteStore::isPlayableFile(const std::filesystem::path& path) {
    static constexpr std::array<std::string_view, 12> extensions{".flac", ".wav", ".wave", ".aif", ".aiff", ".aifc",
                                                                  ".mp3", ".m4a", ".aac", ".alac", ".ogg", ".opus"};
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return std::find(extensions.begin(), extensions.end(), ext) != extensions.end();
}

UUID RouteStore::deckRoute() {
    for (const auto& r : routes_)
        if (r.kind == RouteKind::localPlayer) return r.id;
    AppRoute route(UUID::random(), std::string(localPlayerBundleID), std::string(deckDisplayName), std::nullopt, std::nullopt);
    route.kind = RouteKind::localPlayer;
    route.activationMode = RouteActivationMode::on;
    routes_.push_back(route);
    editRoute(route.id);
    if (!selectedRouteID_) selectRoute(route.id);
    return route.id;
}

DeckPlayback& RouteStore::ensureDeck() {
    if (!deck_) {
        const UUID id = deckRoute();
        deck_ = std::make_unique<DeckPlayback>(platform_, [this, id](int channels) { return makeChain(id, channels); });
        placeDeck();
    }
    return *deck_;
}

// The deck plays where its route says: the chosen device, else the default output.
void RouteStore::placeDeck() {
    if (!deck_) return;
    const AppRoute* r = route(deckRoute());
    OutputDeviceLookup lookup(platform_);
    if (auto device = lookup.resolve(r->targetOutputDeviceID)) deck_->setOutputDevice(*device);
}

std::size_t RouteStore::deckOpen(const std::vector<std::filesystem::path>& paths, bool append) {
    std::vector<std::filesystem::path> files;
    for (const auto& path : paths) {
        std::error_code ec;
        if (std::filesystem::is_directory(path, ec)) {
            std::vector<std::filesystem::path> found;
            for (auto it = std::filesystem::recursive_directory_iterator(
                     path, std::filesystem::directory_options::skip_permission_denied, ec);
                 !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
                if (it->is_regular_file(ec) && isPlayableFile(it->path())) found.push_back(it->path());
            // An album folder plays in the order its files are named ("01 …", "02 …").
            std::sort(found.begin(), found.end());
            files.insert(files.end(), found.begin(), found.end());
        } else if (std::filesystem::is_regular_file(path, ec)) {
            files.push_back(path);
        } else {
            throw std::invalid_argument(path.string() + ": no such file or folder");
        }
    }
    if (files.empty()) throw std::invalid_argument("no audio files there (FLAC, WAV, AIFF, MP3, AAC, ALAC)");
    DeckPlayback& deck = ensureDeck();
    if (append) deck.append(files);
    else deck.setQueue(files);
    pollDeck();
    changed(Change::deck);
    return files.size();
}

bool RouteStore::deckPlay(std::optional<int> index) {
    DeckPlayback& deck = ensureDeck();
    placeDeck();
    bool started = false;
    try {
        started = deck.play(index);
    } catch (const std::exception& e) {
        setError(deckRoute(), std::string("the deck's output did not start: ") + e.what());
        pollDeck();
        throw std::runtime_error(std::string("the deck's output did not start: ") + e.what());
    }
    pollDeck();
    return started;
}

void RouteStore::deckPause() {
    if (deck_) deck_->pause();
    pollDeck();
}

void RouteStore::deckStop() {
    if (deck_) deck_->stop();
    pollDeck();
}

bool RouteStore::deckNext() {
    const bool moved = deck_ && deck_->next();
    pollDeck();
    return moved;
}

bool RouteStore::deckPrevious() {
    const bool moved = deck_ && deck_->previous();
    pollDeck();
    return moved;
}

void RouteStore::deckSeek(double seconds) {
    if (deck_) deck_->seek(seconds);
    pollDeck();
}

void RouteStore::deckMove(int from, int to) {
    if (!deck_) return;
    deck_->move(from, to);
    changed(Change::deck);
}

void RouteStore::deckSetRepeat(DeckPlayback::Repeat repeat) {
    ensureDeck().setRepeat(repeat);
    changed(Change::deck);
}

void RouteStore::deckSetShuffle(bool on) {
    ensureDeck().setShuffle(on);
    changed(Change::deck);
}

// While it plays: the route's health and message follow the deck, and observers hear of a new
// track or state (not of the position, which they read when they want it).
void RouteStore::pollDeck() {
    if (!deck_) return;
    const UUID id = deckRoute();
    for (auto& message : deck_->poll()) setError(id, message);
    const DeckPlayback::Status status = deck_->status();
    AppRoute* r = mutableRoute(id);
    const bool playing = status.state == DeckPlayback::State::playing;
    if (playing) {
        if (liveEngines_.insert(id).second) changed(Change::liveEngines);
        const bool heard = deck_->chain() && deck_->chain()->inputMeter().currentPeak() > verifiedInputPeak;
        setHealth(*r, heard ? RouteHealth::verified : RouteHealth::active);
    } else {
        if (liveEngines_.erase(id)) changed(Change::liveEngines);
        setHealth(*r, status.state == DeckPlayback::State::paused ? RouteHealth::paused : RouteHealth::idle);
    }
    if (status.state != lastDeckState_ || status.trackIndex != lastDeckTrack_) {
        const bool newTrack = status.trackIndex != lastDeckTrack_;
        lastDeckState_ = status.state;
        lastDeckTrack_ = status.trackIndex;
        // The deck knows exactly what it plays: AI Tune's song memory and the listening history
        // learn from its tags as they do from a music player's.
        if (newTrack) {
            const DeckTrack* track = deckTrack();
            std::optional<RouteAITune::NowPlaying> playing;
            if (track && status.trackIndex >= 0)
                playing = RouteAITune::NowPlaying{track->tags.title, track->tags.artist, track->tags.genre,
                                                  track->tags.durationSeconds, track->tags.album};
            setNowPlaying(std::string(localPlayerBundleID), playing);
        }
        changed(Change::deck);
    }
    if (playing && !deckTimer_.isActive()) deckTimer_.startRepeating(deckPollSeconds, [this] { pollDeck(); });
    else if (!playing && deckTimer_.isActive()) deckTimer_.cancel();
}

} // namespace tarn
