#include "core/dsp/TenBandEQ.hpp"

#include <algorithm>
#include <cmath>

namespace tarn {

namespace {
constexpr double negligibleDb = 1e-9;

double clampGain(double db) { return std::clamp(db, TenBandLayout::minGainDb, TenBandLayout::maxGainDb); }
} // namespace

const std::shared_ptr<const TenBandEQ::ChannelBank>& TenBandEQ::emptyChannelBank() {
    static const std::shared_ptr<const ChannelBank> empty =
        std::make_shared<const ChannelBank>(std::vector<std::vector<BiquadFloatCoefficients>>{});
    return empty;
}

TenBandEQ::TenBandEQ(int channelCount, double sampleRate, UptimeClock clock)
    : channelCount_(channelCount < 1 ? 1 : channelCount), banks_(std::move(clock)), sampleRate_(sampleRate) {
    for (int i = 0; i < bandCount; ++i) {
        bands_.push_back({i, TenBandLayout::centerFrequenciesHz[i], 0.0, TenBandLayout::defaultQ});
        filters_.push_back(std::make_unique<BiquadFilter>(channelCount_));
        designFilter(i);
    }
    refreshBypassFlag();
}

int TenBandEQ::bandIndex(int bandID) const {
    for (int i = 0; i < int(bands_.size()); ++i)
        if (bands_[i].id == bandID) return i;
    return -1;
}

void TenBandEQ::designFilter(int band) {
    filters_[band]->setCoefficients(StageSections::tenBandSection(bands_[band], sampleRate_));
}

void TenBandEQ::notify() {
    if (onChange_) onChange_();
}

void TenBandEQ::setGain(double gainDb, int bandID) {
    const int i = bandIndex(bandID);
    if (i < 0) return;
    bands_[i].gainDb = clampGain(gainDb);
    currentCoefficientsCache_.reset();
    designFilter(i);
    rebuildChannelBank();
    refreshBypassFlag();
    notify();
}

void TenBandEQ::applyQVector(const std::vector<double>& qs) {
    if (qs.size() != bands_.size()) return;
    currentCoefficientsCache_.reset();
    for (std::size_t i = 0; i < bands_.size(); ++i) {
        bands_[i].q = qs[i];
        designFilter(int(i));
    }
    rebuildChannelBank();
    refreshBypassFlag();
    notify();
}

void TenBandEQ::padChannelDeltaTable(std::vector<std::vector<double>>& table, int channel, int bandCount) {
    if (int(table.size()) <= channel) table.resize(channel + 1);
    if (int(table[channel].size()) < bandCount) table[channel].resize(bandCount, 0.0);
}

void TenBandEQ::setChannelDelta(double deltaDb, int bandID, int channel) {
    if (channel < 0 || channel >= channelCount_) return;
    const int i = bandIndex(bandID);
    if (i < 0) return;
    padChannelDeltaTable(channelDeltasDb_, channel, int(bands_.size()));
    channelDeltasDb_[channel][i] = deltaDb;
    rebuildChannelBank();
    refreshBypassFlag();
    notify();
}

void TenBandEQ::setChannelDeltas(std::vector<std::vector<double>> deltas) {
    channelDeltasDb_ = std::move(deltas);
    rebuildChannelBank();
    refreshBypassFlag();
    notify();
}

void TenBandEQ::setBypassed(bool bypassed) {
    isBypassed_ = bypassed;
    refreshBypassFlag();
    notify();
}

bool TenBandEQ::hasChannelDeltas() const {
    for (const auto& row : channelDeltasDb_)
        for (double d : row)
            if (std::abs(d) > negligibleDb) return true;
    return false;
}

std::vector<double> TenBandEQ::sharedGains() const {
    std::vector<double> gains(bands_.size());
    for (std::size_t i = 0; i < bands_.size(); ++i) gains[i] = bands_[i].gainDb;
    return gains;
}

std::vector<double> TenBandEQ::effectiveGains(int channel) const { return effectiveGains(channel, sharedGains()); }

std::vector<double> TenBandEQ::effectiveGains(int channel, std::span<const double> bandGainsDb) const {
    std::vector<double> gains(bands_.size());
    for (std::size_t i = 0; i < bands_.size(); ++i) {
        double delta = 0.0;
        if (channel >= 0 && channel < int(channelDeltasDb_.size()) && i < channelDeltasDb_[channel].size())
            delta = channelDeltasDb_[channel][i];
        const double shared = i < bandGainsDb.size() ? clampGain(bandGainsDb[i]) : 0.0;
        gains[i] = clampGain(shared + delta);
    }
    return gains;
}

StageSections TenBandEQ::channelSections(int channel) const { return channelSections(channel, sharedGains()); }

StageSections TenBandEQ::channelSections(int channel, std::span<const double> bandGainsDb) const {
    std::vector<EQBandState> bands = bands_;
    const std::vector<double> gains = effectiveGains(channel, bandGainsDb);
    for (std::size_t i = 0; i < bands.size(); ++i) bands[i].gainDb = gains[i];
    return StageSections::tenBand(bands, sampleRate_);
}

std::vector<EQBandState> TenBandEQ::worstCaseBands() const {
    if (!hasChannelDeltas()) return bands_;
    std::vector<EQBandState> worst = bands_;
    for (int ch = 0; ch < channelCount_; ++ch) {
        const std::vector<double> gains = effectiveGains(ch);
        for (std::size_t i = 0; i < worst.size(); ++i)
            if (std::abs(gains[i]) > std::abs(worst[i].gainDb)) worst[i].gainDb = gains[i];
    }
    return worst;
}

const std::vector<BiquadCoefficients>& TenBandEQ::currentCoefficients() const {
    if (!currentCoefficientsCache_) {
        std::vector<BiquadCoefficients> sets;
        for (const auto& f : filters_) sets.push_back(f->coefficients());
        currentCoefficientsCache_ = std::move(sets);
    }
    return *currentCoefficientsCache_;
}

void TenBandEQ::rebuildChannelBank() {
    if (!hasChannelDeltas()) {
        if (banks_.current() != emptyChannelBank().get()) banks_.publish(emptyChannelBank());
        return;
    }
    std::vector<std::vector<BiquadFloatCoefficients>> table(channelCount_);
    for (int ch = 0; ch < channelCount_; ++ch)
        for (const BiquadCoefficients& section : channelSections(ch).sections) table[ch].emplace_back(section);
    banks_.publish(std::make_shared<const ChannelBank>(std::move(table)));
}

void TenBandEQ::refreshBypassFlag() {
    bool flat = !hasChannelDeltas();
    for (const auto& b : bands_)
        if (std::abs(b.gainDb) > negligibleDb) flat = false;
    bypassFlag_.store(isBypassed_ || flat);
}

void TenBandEQ::rebuild(double sampleRate) {
    if (!(sampleRate > 0) || sampleRate == sampleRate_) return;
    sampleRate_ = sampleRate;
    currentCoefficientsCache_.reset();
    for (int i = 0; i < int(bands_.size()); ++i) designFilter(i);
    rebuildChannelBank();
    resetStateOnly();
    refreshBypassFlag();
    notify();
}

void TenBandEQ::reset() {
    currentCoefficientsCache_.reset();
    for (int i = 0; i < int(bands_.size()); ++i) {
        bands_[i].gainDb = 0.0;
        designFilter(i);
        filters_[i]->reset();
    }
    rebuildChannelBank();
    refreshBypassFlag();
}

void TenBandEQ::resetChannelState(int channel) {
    if (channel < 0 || channel >= channelCount_) return;
    for (auto& f : filters_) f->resetChannel(channel);
}

void TenBandEQ::resetStateOnly() {
    for (auto& f : filters_) f->reset();
}

const TenBandEQ::ChannelBank* TenBandEQ::currentChannelBank() const {
    const ChannelBank* bank = banks_.current();
    return bank ? bank : emptyChannelBank().get();
}

TenBandEQ::ProcessingSnapshot TenBandEQ::processingSnapshot() {
    ProcessingSnapshot s;
    for (int i = 0; i < bandCount; ++i) s.coefficients[i] = filters_[i]->activeFloatSnapshot();
    s.isBypassed = bypassFlag_.load(std::memory_order_acquire);
    s.channelBank = currentChannelBank();
    return s;
}

void TenBandEQ::processBlock(float* buffer, int frameCount, int channel, int stride, const ProcessingSnapshot& snapshot) {
    if (snapshot.isBypassed) return;
    const BiquadFloatCoefficients* sets = snapshot.coefficientsFor(channel);
    for (int i = 0; i < bandCount; ++i) filters_[i]->processBlock(buffer, frameCount, channel, stride, sets[i]);
}

float TenBandEQ::process(float x, int channel, const ProcessingSnapshot& snapshot) {
    if (snapshot.isBypassed) return x;
    const BiquadFloatCoefficients* sets = snapshot.coefficientsFor(channel);
    for (int i = 0; i < bandCount; ++i) x = filters_[i]->process(x, channel, sets[i]);
    return x;
}

void TenBandEQ::processChannels(std::vector<double>& samples) {
    const ProcessingSnapshot s = processingSnapshot();
    if (s.isBypassed) return;
    const int n = std::min<int>(int(samples.size()), channelCount_);
    for (int ch = 0; ch < n; ++ch) samples[ch] = process(static_cast<float>(samples[ch]), ch, s);
}

double TenBandEQ::process(double x) {
    const ProcessingSnapshot s = processingSnapshot();
    if (s.isBypassed) return x;
    return process(static_cast<float>(x), 0, s);
}

std::pair<double, double> TenBandEQ::processStereo(double left, double right) {
    const ProcessingSnapshot s = processingSnapshot();
    if (s.isBypassed) return {left, right};
    const double l = process(static_cast<float>(left), 0, s);
    const double r = process(static_cast<float>(right), channelCount_ > 1 ? 1 : 0, s);
    return {l, r};
}

} // namespace tarn
