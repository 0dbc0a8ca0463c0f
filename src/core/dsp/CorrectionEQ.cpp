#include "core/dsp/CorrectionEQ.hpp"

#include <cmath>

namespace tarn {

CorrectionEQ::FilterBank::FilterBank(bool hasProfile, float preampLinear, std::vector<std::unique_ptr<BiquadFilter>> filters)
    : hasProfile(hasProfile), preampLinear(preampLinear), filters(std::move(filters)), rtSnapshot_(this->filters.size()) {}

const std::shared_ptr<const CorrectionEQ::FilterBank>& CorrectionEQ::emptyBank() {
    static const std::shared_ptr<const FilterBank> empty =
        std::make_shared<const FilterBank>(false, 1.0f, std::vector<std::unique_ptr<BiquadFilter>>{});
    return empty;
}

CorrectionEQ::CorrectionEQ(int channelCount, double sampleRate, UptimeClock clock)
    : channelCount_(channelCount < 1 ? 1 : channelCount), banks_(std::move(clock)), sampleRate_(sampleRate) {
    banks_.publish(emptyBank());
}

std::shared_ptr<const CorrectionEQ::FilterBank> CorrectionEQ::makeBank(const HeadphoneProfile& profile) const {
    const StageSections stage = StageSections::parametric(profile.preampDb, profile.filters, sampleRate_);
    std::vector<std::unique_ptr<BiquadFilter>> filters;
    for (const BiquadCoefficients& section : stage.sections) {
        auto f = std::make_unique<BiquadFilter>(channelCount_);
        f->setCoefficients(section);
        filters.push_back(std::move(f));
    }
    const float preamp = static_cast<float>(std::pow(10.0, stage.preampDb / 20.0));
    return std::make_shared<const FilterBank>(true, preamp, std::move(filters));
}

StageSections CorrectionEQ::runningSections() const {
    if (isBypassed() || !profile_) {
        StageSections none;
        none.sampleRate = sampleRate_;
        return none;
    }
    return StageSections::parametric(profile_->preampDb, profile_->filters, sampleRate_);
}

void CorrectionEQ::notify() {
    if (onChange_) onChange_();
}

void CorrectionEQ::loadProfile(const HeadphoneProfile& profile) {
    profile_ = profile;
    banks_.publish(makeBank(profile));
    notify();
}

void CorrectionEQ::removeProfile() {
    profile_.reset();
    banks_.publish(std::make_shared<const FilterBank>(false, 1.0f, std::vector<std::unique_ptr<BiquadFilter>>{}));
    notify();
}

void CorrectionEQ::rebuild(double sampleRate) {
    if (!(sampleRate > 0) || sampleRate == sampleRate_) return;
    sampleRate_ = sampleRate;
    if (profile_) banks_.publish(makeBank(*profile_));
}

void CorrectionEQ::setBypassed(bool bypassed) {
    bypassed_.store(bypassed);
    notify();
}

const CorrectionEQ::FilterBank& CorrectionEQ::activeBank() const {
    const FilterBank* bank = banks_.current();
    return bank ? *bank : *emptyBank();
}

void CorrectionEQ::resetStateOnly() {
    for (const auto& f : activeBank().filters) f->reset();
}

void CorrectionEQ::resetChannelState(int channel) {
    if (channel < 0 || channel >= channelCount_) return;
    for (const auto& f : activeBank().filters) f->resetChannel(channel);
}

CorrectionEQ::ProcessingSnapshot CorrectionEQ::processingSnapshot() {
    const FilterBank& bank = activeBank();
    ProcessingSnapshot s;
    s.bank = &bank;
    s.isBypassed = bypassed_.load(std::memory_order_acquire);
    s.hasProfile = bank.hasProfile;
    s.preampLinear = bank.preampLinear;
    for (std::size_t i = 0; i < bank.filters.size(); ++i) bank.rtSnapshot_[i] = bank.filters[i]->activeFloatSnapshot();
    s.coefficients = bank.rtSnapshot_;
    return s;
}

void CorrectionEQ::processBlock(float* buffer, int frameCount, int channel, int stride, const ProcessingSnapshot& snapshot) {
    if (!snapshot.isActive()) return;
    if (snapshot.preampLinear != 1.0f) {
        float* p = buffer + channel;
        for (int i = 0; i < frameCount; ++i, p += stride) *p *= snapshot.preampLinear;
    }
    const auto& filters = snapshot.bank->filters;
    for (std::size_t i = 0; i < filters.size(); ++i)
        filters[i]->processBlock(buffer, frameCount, channel, stride, snapshot.coefficients[i]);
}

float CorrectionEQ::process(float x, int channel, const ProcessingSnapshot& snapshot) {
    if (!snapshot.isActive()) return x;
    if (snapshot.preampLinear != 1.0f) x *= snapshot.preampLinear;
    const auto& filters = snapshot.bank->filters;
    for (std::size_t i = 0; i < filters.size(); ++i) x = filters[i]->process(x, channel, snapshot.coefficients[i]);
    return x;
}

void CorrectionEQ::processChannels(std::vector<double>& samples) {
    const ProcessingSnapshot s = processingSnapshot();
    if (!s.isActive()) return;
    const int n = std::min<int>(int(samples.size()), channelCount_);
    for (int ch = 0; ch < n; ++ch) samples[ch] = process(static_cast<float>(samples[ch]), ch, s);
}

double CorrectionEQ::process(double x) {
    const ProcessingSnapshot s = processingSnapshot();
    if (!s.isActive()) return x;
    return process(static_cast<float>(x), 0, s);
}

std::pair<double, double> CorrectionEQ::processStereo(double left, double right) {
    const ProcessingSnapshot s = processingSnapshot();
    if (!s.isActive()) return {left, right};
    const double l = process(static_cast<float>(left), 0, s);
    const double r = process(static_cast<float>(right), channelCount_ > 1 ? 1 : 0, s);
    return {l, r};
}

} // namespace tarn
