#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>

#include "app/QueueTimer.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "core/models/UUID.hpp"

namespace tarn {

class RouteDSPChain;

// Moves a live route's band gains and output trim towards the values the user asked for in
// small steps, so a big change is heard as a quick sweep instead of a jump. The targets are the
// store's `bandSlewTargets` and `trimSlewTargets`: what is still on its way.
//
// Control thread only.
class RouteGlides {
public:
    // 50 dB/s: a full-range band move (24 dB) takes about half a second.
    static constexpr double stepSeconds = 0.01;
    static constexpr double maxStepDb = 0.5;

    using BandTargets = std::array<std::optional<double>, TenBandLayout::bandCount>;
    // The live chain of a route, or nullptr when the route does not run (its glides are dropped).
    using ChainLookup = std::function<RouteDSPChain*(const UUID&)>;

    RouteGlides(MainQueue& queue, ChainLookup chainFor);

    void glideBand(const UUID& route, int band, double targetDb);
    void glideTrim(const UUID& route, double targetDb);
    // Drops the route's targets where they are (the route stopped, or took a value at once).
    void cancel(const UUID& route);
    void cancelBand(const UUID& route, int band);

    bool isInFlight() const { return !bandSlewTargets_.empty() || !trimSlewTargets_.empty(); }
    std::optional<double> bandTarget(const UUID& route, int band) const;
    std::optional<double> trimTarget(const UUID& route) const;

    // Called once every glide has landed.
    std::function<void()> onSettled;

    // One step of every glide (the timer's tick; tests call it directly).
    void step();

private:
    void ensureTicking();

    ChainLookup chainFor_;
    QueueTimer timer_;
    std::map<UUID, BandTargets> bandSlewTargets_;
    std::map<UUID, double> trimSlewTargets_;
};

} // namespace tarn
