#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "support/RealtimeAudit.hpp"

namespace tarn {
namespace {

TEST(AnalysisTapRealtime, TheAuditSeesAllocationsAndLocks) {
    ASSERT_TRUE(test::auditHooksResolved());
    const long allocations = test::auditedAllocations(), locks = test::auditedLocks();
    {
        test::Audit audit;
        std::vector<float> v(10);
        std::mutex m;
        std::lock_guard lock(m);
    }
    EXPECT_GE(test::auditedAllocations() - allocations, 2);
    EXPECT_GE(test::auditedLocks() - locks, 1);
}

TEST(AnalysisTapRealtime, WriteNeverAllocatesOrLocks) {
    BandProminenceAnalyzer analyzer; // its worker runs meanwhile, as in a live route
    analyzer.start(48000);
    auto& tap = analyzer.tap();
    tap.setEnabled(true);
    std::vector<float> block(8 * 9000, 0.25f);
    const long allocations = test::auditedAllocations(), locks = test::auditedLocks();
    {
        test::Audit audit;
        for (int channels : {1, 2, 6, 8})
            for (int frames : {1, 128, 4096, 4097, 9000}) tap.write(block.data(), frames, channels); // fills the ring
        tap.setClockPaused(true);
        tap.write(block.data(), 512, 2);
        tap.setClockPaused(false);
        tap.setEnabled(false);
        tap.write(block.data(), 512, 2);
    }
    EXPECT_EQ(test::auditedAllocations() - allocations, 0);
    EXPECT_EQ(test::auditedLocks() - locks, 0);
    EXPECT_GT(tap.framesObserved(), 0);
}

} // namespace
} // namespace tarn
