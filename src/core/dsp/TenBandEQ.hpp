#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/dsp/BiquadFilter.hpp"
#include "core/dsp/EQBandState.hpp"
#include "core/dsp/RetainedBankPublisher.hpp"
#include "core/dsp/StageSections.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

// The user's graphic equaliser of one route: ten peaking sections at fixed octave centres, one
// shared gain per band and optional per-channel offsets. The control thread edits it; the
// real-time thread runs it without locks (per-band sequence-locked coefficients plus an
// atomically published per-channel bank).
class TenBandEQ {
public:
    static constexpr int bandCount = TenBandLayout::bandCount;

    // Per-channel coefficient table (channel → ten bands), immutable once published.
    class ChannelBank {
    public:
        explicit ChannelBank(std::vector<std::vector<BiquadFloatCoefficients>> table) : table(std::move(table)) {}
        // The channel's ten sets, or nullptr when the bank holds none for it.
        const BiquadFloatCoefficients* coefficientsFor(int channel) const {
            return channel >= 0 && channel < int(table.size()) && table[channel].size() == bandCount
                       ? table[channel].data() : nullptr;
        }
        const std::vector<std::vector<BiquadFloatCoefficients>> table;
    };

    // What one block runs with, read once at its top.
    struct ProcessingSnapshot {
        bool isBypassed = true;
        std::array<BiquadFloatCoefficients, bandCount> coefficients{};
        const ChannelBank* channelBank = nullptr;

        // The ten sets that channel `channel` runs: its own bank row, else the shared ones.
        const BiquadFloatCoefficients* coefficientsFor(int channel) const {
            const BiquadFloatCoefficients* own = channelBank ? channelBank->coefficientsFor(channel) : nullptr;
            return own ? own : coefficients.data();
        }
    };

    TenBandEQ(int channelCount, double sampleRate, UptimeClock clock = {});
    TenBandEQ(const TenBandEQ&) = delete;
    TenBandEQ& operator=(const TenBandEQ&) = delete;

    // Control thread.
    void setGain(double gainDb, int bandID);
    void applyQVector(const std::vector<double>& qs);
    void setChannelDelta(double deltaDb, int bandID, int channel);
    void setChannelDeltas(std::vector<std::vector<double>> deltas);
    void setBypassed(bool bypassed);
    bool isBypassed() const { return isBypassed_; }
    void rebuild(double sampleRate);
    void reset();
    void resetChannelState(int channel);
    void resetStateOnly();
    void setOnChange(std::function<void()> callback) { onChange_ = std::move(callback); }

    const std::vector<EQBandState>& bands() const { return bands_; }
    const std::vector<std::vector<double>>& channelDeltasDb() const { return channelDeltasDb_; }
    bool hasChannelDeltas() const;
    std::vector<double> effectiveGains(int channel) const;
    // The ten sections channel `channel` runs, its offsets included, in double precision (what
    // its bank row narrows), whether or not the equaliser is bypassed.
    StageSections channelSections(int channel) const;
    // The same had the shared band gains been `bandGainsDb` (one per band): what the channel
    // would run under other gains, with the same Qs, offsets, clamping and rate.
    StageSections channelSections(int channel, std::span<const double> bandGainsDb) const;
    std::vector<EQBandState> worstCaseBands() const;
    const std::vector<BiquadCoefficients>& currentCoefficients() const;
    int channelCount() const { return channelCount_; }
    double sampleRate() const { return sampleRate_; }
    BiquadFilter& filter(int band) { return *filters_[band]; }
    const std::vector<RetainedBankPublisher<ChannelBank>::Retained>& retainedChannelBanks() const {
        return banks_.retained();
    }

    static void padChannelDeltaTable(std::vector<std::vector<double>>& table, int channel, int bandCount);

    // Real-time thread.
    bool isEffectivelyBypassed() const { return bypassFlag_.load(std::memory_order_acquire); }
    const ChannelBank* currentChannelBank() const;
    ProcessingSnapshot processingSnapshot();
    void processBlock(float* buffer, int frameCount, int channel, int stride, const ProcessingSnapshot& snapshot);
    float process(float x, int channel, const ProcessingSnapshot& snapshot);
    void processChannels(std::vector<double>& samples);
    double process(double x);
    std::pair<double, double> processStereo(double left, double right);

    static const std::shared_ptr<const ChannelBank>& emptyChannelBank();

private:
    void designFilter(int band);
    std::vector<double> sharedGains() const;
    std::vector<double> effectiveGains(int channel, std::span<const double> bandGainsDb) const;
    void rebuildChannelBank();
    void refreshBypassFlag();
    void notify();
    int bandIndex(int bandID) const;

    std::vector<EQBandState> bands_;
    std::vector<std::vector<double>> channelDeltasDb_;
    int channelCount_;
    bool isBypassed_ = false;
    std::atomic<bool> bypassFlag_{true};
    RetainedBankPublisher<ChannelBank> banks_;
    std::function<void()> onChange_;
    std::vector<std::unique_ptr<BiquadFilter>> filters_;
    double sampleRate_;
    mutable std::optional<std::vector<BiquadCoefficients>> currentCoefficientsCache_;
};

} // namespace tarn
