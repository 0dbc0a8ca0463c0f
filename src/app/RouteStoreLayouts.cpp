// The route store's desk layouts: saving the desk as a layout, applying one, and following the
// output devices that layouts are bound to. The layouts themselves are kept by DeskLayouts.

#include <algorithm>

#include "app/RouteStore.hpp"

namespace tarn {

UUID RouteStore::saveLayout(const std::string& name, std::optional<std::string> boundDeviceUID) {
    const UUID id = layouts_.add(name, routes_, std::move(boundDeviceUID));
    changed(Change::layouts);
    return id;
}

bool RouteStore::deleteLayout(const UUID& layoutID) {
    if (!layouts_.remove(layoutID)) return false;
    changed(Change::layouts);
    return true;
}

bool RouteStore::bindLayout(const UUID& layoutID, std::optional<std::string> deviceUID) {
    if (!layouts_.bind(layoutID, std::move(deviceUID))) return false;
    changed(Change::layouts);
    if (isActivated_) followLayoutDevices();
    return true;
}

bool RouteStore::applyLayout(const UUID& layoutID) {
    const DeskLayout* layout = layouts_.find(layoutID);
    if (!layout) return false;
    const auto wanted = layout->routes;
    // The desk before the first layout is what comes back, however many layouts follow.
    std::vector<AppRoute> before = routes_;
    if (const auto& active = layouts_.activeLayoutID()) {
        layouts_.remember(*active, routes_);
        if (layouts_.routesBeforeLayout()) before = *layouts_.routesBeforeLayout();
    }
    replaceRoutes(wanted);
    layouts_.setActive(layoutID, std::move(before));
    changed(Change::layouts);
    return true;
}

void RouteStore::followLayoutDevices() {
    std::vector<std::string> present;
    for (const auto& device : devices_.entries()) present.push_back(device.uid);
    const auto wanted = layouts_.layoutForDevices(present);
    const auto active = layouts_.activeLayoutID();
    if (wanted == active) return;
    if (wanted) {
        applyLayout(*wanted);
        return;
    }
    // Only the going of a bound layout's device undoes it; one applied by hand stays.
    const DeskLayout* layout = active ? layouts_.find(*active) : nullptr;
    if (!layout || !layout->boundOutputDeviceUID ||
        std::find(present.begin(), present.end(), *layout->boundOutputDeviceUID) != present.end())
        return;
    layouts_.remember(*active, routes_);
    if (const auto& before = layouts_.routesBeforeLayout()) {
        const auto routes = *before;
        replaceRoutes(routes);
    }
    layouts_.setActive(std::nullopt, std::nullopt);
    changed(Change::layouts);
}

void RouteStore::replaceRoutes(const std::vector<AppRoute>& wanted) {
    auto isWanted = [&](const UUID& id) {
        return std::any_of(wanted.begin(), wanted.end(), [&](const AppRoute& w) { return w.id == id; });
    };
    for (const auto& r : std::vector<AppRoute>(routes_))
        if (!isWanted(r.id)) removeRoute(r.id);
    for (const auto& w : wanted) {
        if (route(w.id)) {
            setOutputDevice(w.id, w.targetOutputDeviceID, w.targetOutputStreamIndex);
        } else if (std::none_of(routes_.begin(), routes_.end(), [&](const AppRoute& r) { return r.bundleID == w.bundleID; })) {
            routes_.push_back(w.restoredForCurrentSession());
            editRoute(w.id);
        }
    }
    // The layout's order.
    std::stable_sort(routes_.begin(), routes_.end(), [&](const AppRoute& a, const AppRoute& b) {
        auto index = [&](const UUID& id) {
            return std::find_if(wanted.begin(), wanted.end(), [&](const AppRoute& w) { return w.id == id; }) -
                   wanted.begin();
        };
        return index(a.id) < index(b.id);
    });
    editRoute(wanted.empty() ? UUID() : wanted.front().id);
    if (!selectedRouteID_ && !routes_.empty()) selectRoute(routes_.front().id);
    for (const auto& r : std::vector<AppRoute>(routes_))
        if (r.kind == RouteKind::appTap && r.activationMode == RouteActivationMode::on && !liveEngines_.count(r.id))
            startAudio(r.id, false);
    updateAutoPolling();
    if (isActivated_) reconcileAutoRoutes();
}

} // namespace tarn
