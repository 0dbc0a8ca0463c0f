#include "app/RouteGlides.hpp"

#include <algorithm>
#include <cmath>

#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

namespace {

// The next value on the way from `current` to `target`.
double towards(double current, double target) {
    const double diff = target - current;
    if (std::abs(diff) <= RouteGlides::maxStepDb) return target;
    return current + std::copysign(RouteGlides::maxStepDb, diff);
}

} // namespace

RouteGlides::RouteGlides(MainQueue& queue, ChainLookup chainFor) : chainFor_(std::move(chainFor)), timer_(queue) {}

void RouteGlides::glideBand(const UUID& route, int band, double targetDb) {
    if (band < 0 || band >= TenBandLayout::bandCount) return;
    bandSlewTargets_[route][std::size_t(band)] = targetDb;
    ensureTicking();
}

void RouteGlides::glideTrim(const UUID& route, double targetDb) {
    trimSlewTargets_[route] = targetDb;
    ensureTicking();
}

void RouteGlides::cancel(const UUID& route) {
    bandSlewTargets_.erase(route);
    trimSlewTargets_.erase(route);
}

void RouteGlides::cancelBand(const UUID& route, int band) {
    auto it = bandSlewTargets_.find(route);
    if (it == bandSlewTargets_.end() || band < 0 || band >= TenBandLayout::bandCount) return;
    it->second[std::size_t(band)].reset();
    if (std::none_of(it->second.begin(), it->second.end(), [](const auto& t) { return t.has_value(); }))
        bandSlewTargets_.erase(it);
}

std::optional<double> RouteGlides::bandTarget(const UUID& route, int band) const {
    auto it = bandSlewTargets_.find(route);
    if (it == bandSlewTargets_.end() || band < 0 || band >= TenBandLayout::bandCount) return std::nullopt;
    return it->second[std::size_t(band)];
}

std::optional<double> RouteGlides::trimTarget(const UUID& route) const {
    auto it = trimSlewTargets_.find(route);
    if (it == trimSlewTargets_.end()) return std::nullopt;
    return it->second;
}

void RouteGlides::ensureTicking() {
    if (!timer_.isActive()) timer_.startRepeating(stepSeconds, [this] { step(); });
}

void RouteGlides::step() {
    for (auto it = bandSlewTargets_.begin(); it != bandSlewTargets_.end();) {
        RouteDSPChain* chain = chainFor_(it->first);
        bool pending = false;
        for (int band = 0; chain && band < TenBandLayout::bandCount; ++band) {
            auto& target = it->second[std::size_t(band)];
            if (!target) continue;
            const double next = towards(chain->customEQ().bands()[std::size_t(band)].gainDb, *target);
            chain->customEQ().setGain(next, band);
            if (next == *target) target.reset();
            else pending = true;
        }
        it = pending ? std::next(it) : bandSlewTargets_.erase(it);
    }
    for (auto it = trimSlewTargets_.begin(); it != trimSlewTargets_.end();) {
        RouteDSPChain* chain = chainFor_(it->first);
        bool pending = false;
        if (chain) {
            const double next = towards(chain->outputTrimDb(), it->second);
            chain->setOutputTrim(next);
            pending = next != it->second;
        }
        it = pending ? std::next(it) : trimSlewTargets_.erase(it);
    }
    if (isInFlight()) return;
    timer_.cancel();
    if (onSettled) onSettled();
}

} // namespace tarn
