// tarn deck: the player deck, through the running desk. Files play through the deck's route
// (its equaliser, correction and device), gapless between tracks of one format.

#include <cmath>
#include <filesystem>
#include <memory>

#include <QStringList>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/Command.hpp"
#include "cli/DeskClient.hpp"

namespace tarn::cli {
namespace {

struct DeckOptions {
    std::vector<std::string> paths;
    bool append = false;
    bool json = false;
    double seconds = 0;
    int index = -1;
};

std::string clock(double seconds) {
    if (!(seconds >= 0) || !std::isfinite(seconds)) return "--:--";
    const auto s = static_cast<long>(seconds);
    return s >= 3600 ? fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60) : fmt::format("{}:{:02}", s / 60, s % 60);
}

int open(const DeckOptions& o) {
    QStringList paths;
    for (const auto& p : o.paths) {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(p, ec);
        paths << QString::fromStdString((ec ? std::filesystem::path(p) : absolute.lexically_normal()).string());
    }
    DeskClient desk;
    const auto reply = desk.call("DeckOpen", {paths, o.append});
    const int queued = reply.value(0).toInt();
    fmt::print("{} file{} queued\n", queued, queued == 1 ? "" : "s");
    if (!o.append) desk.call("DeckPlay", {-1});
    return exitOk;
}

int status(const DeckOptions& o) {
    DeskClient desk;
    const auto deck = desk.property("Deck");
    if (o.json) {
        fmt::print("{}\n", deck.dump(2));
        return exitOk;
    }
    const int track = deck.value("trackIndex", -1);
    const auto& queue = deck["queue"];
    if (track < 0 || track >= int(queue.size())) {
        fmt::print("{} · {} in the queue\n", deck.value("state", "stopped"), queue.size());
        return exitOk;
    }
    std::string title = deck.value("title", queue[std::size_t(track)].value("name", ""));
    if (const std::string artist = deck.value("artist", ""); !artist.empty()) title += " — " + artist;
    fmt::print("{}  {}  {} / {}  ({} of {}{}{})\n", deck.value("state", ""), title,
               clock(deck.value("positionSeconds", 0.0)), clock(deck.value("durationSeconds", 0.0)), track + 1, queue.size(),
               deck.value("repeat", "off") != "off" ? ", repeat " + deck.value("repeat", "") : "",
               deck.value("shuffle", false) ? ", shuffle" : "");
    return exitOk;
}

int queue(const DeckOptions& o) {
    DeskClient desk;
    const auto deck = desk.property("Deck");
    if (o.json) {
        fmt::print("{}\n", deck["queue"].dump(2));
        return exitOk;
    }
    const int track = deck.value("trackIndex", -1);
    int i = 0;
    for (const auto& entry : deck["queue"]) {
        fmt::print("{} {:>3}  {}\n", i == track ? "▶" : " ", i + 1, entry.value("path", ""));
        ++i;
    }
    if (i == 0) fmt::print("the queue is empty (tarn deck open FILE|FOLDER)\n");
    return exitOk;
}

int lyrics(const DeckOptions& o) {
    DeskClient desk;
    const auto text = desk.callText("DeckLyrics");
    const auto j = nlohmann::json::parse(text, nullptr, false);
    if (o.json) {
        fmt::print("{}\n", j.dump(2));
        return exitOk;
    }
    if (!j.is_object() || j["lines"].empty()) {
        fmt::print("no lyrics for this track (none in its tags, no .lrc file beside it)\n");
        return exitOk;
    }
    const int current = j["current"].is_number() ? j["current"].get<int>() : -1;
    int i = 0;
    for (const auto& line : j["lines"]) {
        const std::string stamp = line["seconds"].is_number() ? "[" + clock(line["seconds"].get<double>()) + "] " : "";
        fmt::print("{} {}{}\n", i == current ? "▶" : " ", stamp, line.value("text", ""));
        ++i;
    }
    return exitOk;
}

Command makeDeckCommand(CLI::App& root) {
    auto o = std::make_shared<DeckOptions>();
    auto* deck = root.add_subcommand("deck", "Play local files through the player deck's route (talks to the running desk)");
    deck->require_subcommand(1);
    deck->footer("The deck plays FLAC, WAV, AIFF, MP3, AAC and ALAC through its route's chain, on its route's device\n"
                 "(`tarn route device \"Player deck\" UID`), gapless between tracks of the same format.");
    auto run = std::make_shared<std::function<int()>>();
    auto on = [run](CLI::App* app, std::function<int()> f) { app->callback([run, f] { *run = f; }); };

    auto* c = deck->add_subcommand("open", "Queue files and folders (every audio file in a folder, by name) and play");
    c->add_option("PATH", o->paths, "Files or folders")->required();
    c->add_flag("--append", o->append, "Add to the queue instead of replacing it (playback goes on)");
    on(c, [o] { return open(*o); });

    c = deck->add_subcommand("play", "Play (resume, or start the queue), or play queue entry N");
    c->add_option("N", o->index, "Queue entry, counted from 1")->check(CLI::PositiveNumber);
    on(c, [o] {
        DeskClient desk;
        desk.call("DeckPlay", {o->index > 0 ? o->index - 1 : -1});
        return exitOk;
    });
    struct Plain {
        const char* name;
        const char* what;
        const char* method;
    };
    for (const Plain& p : {Plain{"pause", "Pause (5 ms fade)", "DeckPause"}, Plain{"stop", "Stop and go back to the start", "DeckStop"},
                           Plain{"next", "The next track", "DeckNext"},
                           Plain{"previous", "The track's start, or the track before within its first 3 s", "DeckPrevious"}}) {
        c = deck->add_subcommand(p.name, p.what);
        on(c, [method = p.method] {
            DeskClient desk;
            desk.call(method);
            return exitOk;
        });
    }
    c = deck->add_subcommand("seek", "Go to SECONDS into the current track");
    c->add_option("SECONDS", o->seconds, "Position in seconds")->required()->check(CLI::Range(0.0, 86400.0));
    on(c, [o] {
        DeskClient desk;
        desk.call("DeckSeek", {o->seconds});
        return exitOk;
    });
    c = deck->add_subcommand("status", "What plays, where in it, and the queue's length");
    c->add_flag("--json", o->json, "The deck's state as JSON");
    on(c, [o] { return status(*o); });
    c = deck->add_subcommand("queue", "The queue, the playing entry marked");
    c->add_flag("--json", o->json, "The queue as JSON");
    on(c, [o] { return queue(*o); });

    c = deck->add_subcommand("lyrics", "The playing track's lyrics, the line being sung marked (from an .lrc beside it or its tags)");
    c->add_flag("--json", o->json, "The lyrics as JSON: synchronised, lines [{seconds, text}], current");
    on(c, [o] { return lyrics(*o); });

    return {deck, [run] { return (*run)(); }};
}

const CommandRegistration registration{"deck", 76, &makeDeckCommand};

} // namespace
} // namespace tarn::cli
