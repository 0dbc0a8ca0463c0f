#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn {
namespace {

// Many threads asking a fresh catalogue at once must see one load and the same records.
TEST(BundledProfileCatalogLoad, ConcurrentFirstUseLoadsOnce) {
    const BundledProfileCatalog catalog(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    constexpr int threads = 8;
    std::atomic<int> ready{0};
    std::vector<const HeadphoneProfile*> seen(threads, nullptr);
    std::vector<std::size_t> counts(threads, 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < threads) {
            }
            seen[t] = catalog.profile("oratory1990.over-ear.sennheiser-hd-650");
            counts[t] = catalog.search("hd 6").size();
        });
    for (auto& w : workers) w.join();
    ASSERT_NE(seen[0], nullptr);
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(seen[t], seen[0]); // the same object: loaded once, never replaced
        EXPECT_EQ(counts[t], 10u);
    }
}

} // namespace
} // namespace tarn
