#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <QDBusConnection>

#include "app/DeskBus.hpp"
#include "app/NowPlayingObserver.hpp"

namespace tarn {

class DeskService;

// Connects the media players on the session bus with the desk: a player's paused state and
// track reach the route of the application that owns it (auto routes treat a paused player as
// silent; AI Tune's song memory and the listening history learn from its tracks), and the desk's
// play, pause and skip reach the routed application's player.
//
// A player belongs to the application whose process (or one of its processes: browsers play
// from helpers) owns its bus name.
class NowPlayingBridge {
public:
    NowPlayingBridge(DeskService& service, DeskBus& deskBus, QDBusConnection bus);

    void start();

private:
    void apply(const NowPlayingObserver::Player& player);
    void applyAll();
    void gone(const std::string& busName);
    std::optional<std::string> bundleFor(std::int32_t pid) const;
    bool forward(const std::string& bundleID, DeskBus::Transport what);

    DeskService& service_;
    NowPlayingObserver observer_;
    // Player bus name → the application it was matched to.
    std::map<std::string, std::string> bundleOfPlayer_;
};

} // namespace tarn
