// The player deck on the desk's bus interface.

#include <nlohmann/json.hpp>

#include "app/DeskBus.hpp"
#include "core/models/RouteKind.hpp"

namespace tarn {

namespace {

const char* stateName(DeckPlayback::State state) {
    switch (state) {
    case DeckPlayback::State::playing: return "playing";
    case DeckPlayback::State::paused: return "paused";
    case DeckPlayback::State::stopped: return "stopped";
    }
    return "stopped";
}

const char* repeatName(DeckPlayback::Repeat repeat) {
    switch (repeat) {
    case DeckPlayback::Repeat::all: return "all";
    case DeckPlayback::Repeat::one: return "one";
    case DeckPlayback::Repeat::off: return "off";
    }
    return "off";
}

} // namespace

QString DeskBus::deck() const {
    nlohmann::json j = {{"state", "stopped"}, {"trackIndex", -1}, {"positionSeconds", 0.0}, {"durationSeconds", 0.0},
                        {"repeat", "off"}, {"shuffle", false}, {"queue", nlohmann::json::array()}};
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    if (!deck) return QString::fromStdString(j.dump());
    const auto status = deck->status();
    j["state"] = stateName(status.state);
    j["trackIndex"] = status.trackIndex;
    j["positionSeconds"] = status.positionSeconds;
    j["durationSeconds"] = status.durationSeconds;
    j["sampleRate"] = status.sampleRate;
    j["channelCount"] = status.channelCount;
    j["repeat"] = repeatName(deck->repeat());
    j["shuffle"] = deck->shuffle();
    for (const auto& path : deck->queue()) j["queue"].push_back({{"path", path.string()}, {"name", path.stem().string()}});
    if (const auto* track = const_cast<RouteStore*>(store)->deckTrack(); track && status.trackIndex >= 0) {
        j["title"] = track->tags.title;
        j["artist"] = track->tags.artist;
        j["album"] = track->tags.album;
        j["genre"] = track->tags.genre;
        if (track->tags.trackNumber) j["trackNumber"] = *track->tags.trackNumber;
        if (track->artFile) j["artUrl"] = "file://" + track->artFile->string();
        j["hasLyrics"] = !track->lyrics.empty();
    }
    for (const auto& r : store->routes())
        if (r.kind == RouteKind::localPlayer) j["route"] = r.id.string();
    return QString::fromStdString(j.dump());
}

template <typename Operation>
void DeskBus::onDeck(Operation&& operation) {
    RouteStore* store = storeOrFail();
    if (!store) return;
    try {
        operation(*store);
    } catch (const std::exception& e) {
        fail(QString::fromStdString(e.what()));
    }
}

int DeskBus::DeckOpen(const QStringList& paths, bool append) {
    if (paths.isEmpty()) return invalid("no files given"), 0;
    std::vector<std::filesystem::path> files;
    for (const QString& p : paths) {
        if (!checkText("path", p)) return 0;
        const std::filesystem::path path(p.toStdString());
        if (!path.is_absolute()) return invalid("\"" + p.left(200) + "\" is not an absolute path"), 0;
        files.push_back(path);
    }
    RouteStore* store = storeOrFail();
    if (!store) return 0;
    try {
        return int(store->deckOpen(files, append));
    } catch (const std::invalid_argument& e) {
        invalid(QString::fromStdString(e.what()));
    }
    return 0;
}

void DeskBus::DeckPlay(int index) {
    onDeck([&](RouteStore& store) {
        const auto* deck = store.deck();
        const int size = deck ? int(deck->queue().size()) : 0;
        if (index < -1 || index >= size) {
            invalid(QString("index must be -1..%1, got %2").arg(size - 1).arg(index));
            return;
        }
        if (size == 0) {
            fail("the deck's queue is empty (tarn deck open FILE|FOLDER)");
            return;
        }
        if (!store.deckPlay(index < 0 ? std::nullopt : std::optional<int>(index)))
            fail("nothing in the deck's queue can be played");
    });
}

void DeskBus::DeckPause() { onDeck([](RouteStore& s) { s.deckPause(); }); }
void DeskBus::DeckStop() { onDeck([](RouteStore& s) { s.deckStop(); }); }
void DeskBus::DeckNext() {
    onDeck([&](RouteStore& s) {
        if (!s.deckNext()) fail("there is no next track");
    });
}
void DeskBus::DeckPrevious() {
    onDeck([&](RouteStore& s) {
        if (!s.deckPrevious()) fail("nothing is playing");
    });
}

void DeskBus::DeckSeek(double seconds) {
    if (!checkRange("seconds", seconds, 0, 24 * 3600, " s")) return;
    onDeck([&](RouteStore& s) { s.deckSeek(seconds); });
}

void DeskBus::DeckMove(int from, int to) {
    onDeck([&](RouteStore& s) {
        const int size = s.deck() ? int(s.deck()->queue().size()) : 0;
        if (from < 0 || from >= size || to < 0 || to >= size)
            return void(invalid(QString("positions must be 0..%1, got %2 and %3").arg(size - 1).arg(from).arg(to)));
        s.deckMove(from, to);
    });
}

void DeskBus::DeckSetRepeat(const QString& repeat) {
    std::optional<DeckPlayback::Repeat> value;
    if (repeat == "off") value = DeckPlayback::Repeat::off;
    else if (repeat == "all") value = DeckPlayback::Repeat::all;
    else if (repeat == "one") value = DeckPlayback::Repeat::one;
    if (!value) return void(invalid("repeat must be off, all or one, got \"" + repeat.left(32) + "\""));
    onDeck([&](RouteStore& s) { s.deckSetRepeat(*value); });
}

QString DeskBus::DeckLyrics() {
    nlohmann::json j = {{"synchronised", false}, {"lines", nlohmann::json::array()}, {"current", nullptr}};
    RouteStore* store = storeOrFail();
    if (!store) return {};
    if (const auto* track = store->deckTrack(); track && store->deck()) {
        j["synchronised"] = track->lyrics.isSynchronised();
        for (const auto& line : track->lyrics.lines)
            j["lines"].push_back({{"seconds", line.seconds ? nlohmann::json(*line.seconds) : nlohmann::json(nullptr)},
                                  {"text", line.text}});
        if (auto current = track->lyrics.lineAt(store->deck()->status().positionSeconds)) j["current"] = *current;
        j["title"] = track->tags.title;
    }
    return QString::fromStdString(j.dump());
}

void DeskBus::DeckSetShuffle(bool on) { onDeck([&](RouteStore& s) { s.deckSetShuffle(on); }); }

void DeskBus::deckTransport(Transport what) {
    onDeck([&](RouteStore& s) {
        switch (what) {
        case Transport::play: {
            if (!s.deck() || s.deck()->queue().empty()) return void(fail("the deck's queue is empty (tarn deck open FILE|FOLDER)"));
            if (!s.deckPlay()) fail("nothing in the deck's queue can be played");
            return;
        }
        case Transport::pause: return s.deckPause();
        case Transport::next: if (!s.deckNext()) fail("there is no next track"); return;
        case Transport::previous: if (!s.deckPrevious()) fail("nothing is playing"); return;
        }
    });
}

} // namespace tarn
