#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "support/RealtimeAudit.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

TEST(RealtimeAudit, CountsWhatItClaimsToCount) {
    ASSERT_TRUE(test::auditHooksResolved());
    const long allocations = test::auditedAllocations(), locks = test::auditedLocks();
    {
        test::Audit audit;
        std::vector<int> v(10);
        std::mutex m;
        std::lock_guard lock(m);
    }
    EXPECT_GE(test::auditedAllocations() - allocations, 2);   // one new, one delete
    EXPECT_EQ(test::auditedLocks() - locks, 1);
}

HeadphoneProfile profileWith(int filters, double preampDb) {
    HeadphoneProfile p;
    p.preampDb = preampDb;
    for (int i = 0; i < filters; ++i)
        p.filters.push_back({ParametricFilterSpec::Shape::peaking, 60.0 * (i + 1), double(i % 7) - 3, 1.2});
    return p;
}

// The audio thread runs the whole route block after block while the control thread changes
// every setting the desk offers. After the first block, the audio calls must neither allocate
// (nor free) nor take a lock.
TEST(RealtimeAudit, RouteChainAudioPathNeitherAllocatesNorLocksAfterTheFirstBlock) {
    for (int channels : {1, 2, 6}) {
        RouteDSPChain chain(channels, 48000);
        chain.customEQ().setGain(4, 2);
        chain.correctionEQ().loadProfile(profileWith(10, -4));
        chain.userParametricEQ().loadProfile(profileWith(10, -2));
        chain.beatMeter().setActiveBands({0, 5, 9});

        auto block = test::interleavedSine(330, 48000, 0.4, 512, channels);
        DenormalGuard::enableFlushToZero();
        chain.processInterleaved(block.data(), 512);   // the first block may set things up

        std::atomic<bool> done{false};
        std::thread control([&] {
            for (int i = 0; i < 300; ++i) {
                chain.setGain(double(i % 13) - 6);
                chain.setOutputTrim(double(i % 5) - 2);
                chain.customEQ().setGain(double(i % 25) - 12, i % 10);
                chain.customEQ().setChannelDelta(double(i % 5) - 2, (i * 3) % 10, i % channels);
                if (i % 40 == 0) chain.customEQ().setChannelDeltas({});
                if (i % 4 == 0) chain.correctionEQ().loadProfile(profileWith(1 + i % 24, -double(i % 6)));
                if (i % 9 == 0) chain.userParametricEQ().removeProfile();
                if (i % 9 == 4) chain.userParametricEQ().loadProfile(profileWith(i % 12, -1));
                if (i % 15 == 0) chain.recomputeEffectiveQs(allGenrePresets[i % 10], i % 2 ? &*chain.correctionEQ().profile() : nullptr);
                chain.customEQ().setBypassed(i % 33 == 0);
                chain.correctionEQ().setBypassed(i % 21 == 0);
                chain.setSafetyCeilingEnabled(i % 17 != 0);
                chain.setMuted(i % 29 == 0);
                chain.beatMeter().setActiveBands({i % 10});
            }
            done.store(true);
        });

        const long allocationsBefore = test::auditedAllocations(), locksBefore = test::auditedLocks();
        long blocks = 0, frame = 512;
        while (!done.load() || blocks < 50) {
            block = test::interleavedSine(330, 48000, 0.4, 512, channels, {}, frame);
            // Silence now and then exercises the silent-channel path.
            if (blocks % 37 > 30) std::fill(block.begin(), block.end(), 0.0f);
            {
                test::Audit audit;
                DenormalGuard::enableFlushToZero();
                chain.processInterleaved(block.data(), blocks % 5 == 0 ? 37 + blocks % 400 : 512);
            }
            frame += 512;
            ++blocks;
        }
        control.join();
        EXPECT_EQ(test::auditedAllocations() - allocationsBefore, 0) << channels << " channels, " << blocks << " blocks";
        EXPECT_EQ(test::auditedLocks() - locksBefore, 0) << channels << " channels";
    }
}

} // namespace
} // namespace tarn
