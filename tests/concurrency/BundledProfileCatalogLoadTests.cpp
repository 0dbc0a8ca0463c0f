#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn {
namespace {

// Many threads asking a fresh catalogue at once must see one load: the same object, never replaced.
TEST(BundledProfileCatalogLoad, ConcurrentFirstUseLoadsOnce) {
    const BundledProfileCatalog catalog(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    constexpr int threads = 8;
    std::atomic<int> ready{0};
    std::vector<const HeadphoneProfile*> seen(threads, nullptr);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (ready.fetch_add(1); ready.load() < threads;) {
            }
            seen[t] = catalog.profile("oratory1990.over-ear.sennheiser-hd-650");
        });
    for (auto& w : workers) w.join();
    ASSERT_NE(seen[0], nullptr);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), threads);
}

} // namespace
} // namespace tarn
