#include "app/NowPlayingBridge.hpp"

#include "app/DeskService.hpp"
#include "app/ProcessTree.hpp"

namespace tarn {

NowPlayingBridge::NowPlayingBridge(DeskService& service, DeskBus& deskBus, QDBusConnection bus)
    : service_(service), observer_(std::move(bus)) {
    observer_.onChange = [this](const NowPlayingObserver::Player& player) { apply(player); };
    observer_.onGone = [this](const std::string& busName, std::int32_t) { gone(busName); };
    deskBus.forwardTransport = [this](const std::string& bundleID, DeskBus::Transport what) {
        return forward(bundleID, what);
    };
    // A player may show up before its application's first stream, and a reconnected desk starts
    // from a fresh store: match again whenever the processes change.
    service_.addChangeListener([this](RouteStore::Change change) {
        if (change == RouteStore::Change::processes) applyAll();
    });
    service_.addConnectionListener([this] { applyAll(); });
}

void NowPlayingBridge::start() { observer_.start(); }

std::optional<std::string> NowPlayingBridge::bundleFor(std::int32_t pid) const {
    const RouteStore* store = service_.store();
    if (!store || pid <= 0) return std::nullopt;
    const ProcessTree& tree = ProcessTree::system();
    const std::int32_t root = tree.applicationRoot(pid);
    for (const auto& e : store->availableProcesses())
        if (!e.bundleID.empty() && (e.pid == pid || tree.applicationRoot(e.pid) == root)) return e.bundleID;
    return std::nullopt;
}

void NowPlayingBridge::apply(const NowPlayingObserver::Player& player) {
    RouteStore* store = service_.store();
    const auto bundle = bundleFor(player.pid);
    if (!store || !bundle) return;
    bundleOfPlayer_[player.busName] = *bundle;
    store->setBroadcastPaused(*bundle, player.isPaused);
    store->setNowPlaying(*bundle, player.isPlaying || player.isPaused ? player.track : std::nullopt);
}

void NowPlayingBridge::applyAll() {
    for (const auto& player : observer_.players()) apply(player);
}

void NowPlayingBridge::gone(const std::string& busName) {
    auto it = bundleOfPlayer_.find(busName);
    if (it == bundleOfPlayer_.end()) return;
    if (RouteStore* store = service_.store()) {
        store->setBroadcastPaused(it->second, false);
        store->setNowPlaying(it->second, std::nullopt);
    }
    bundleOfPlayer_.erase(it);
}

bool NowPlayingBridge::forward(const std::string& bundleID, DeskBus::Transport what) {
    const RouteStore* store = service_.store();
    if (!store) return false;
    for (const auto& e : store->availableProcesses()) {
        if (e.bundleID != bundleID) continue;
        const auto* player = observer_.playerFor(e.pid);
        if (!player) continue;
        switch (what) {
        case DeskBus::Transport::play: return observer_.play(player->busName);
        case DeskBus::Transport::pause: return observer_.pause(player->busName);
        case DeskBus::Transport::next: return observer_.next(player->busName);
        case DeskBus::Transport::previous: return observer_.previous(player->busName);
        }
    }
    return false;
}

} // namespace tarn
