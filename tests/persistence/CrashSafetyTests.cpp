#include <chrono>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/io/JsonCodecs.hpp"
#include "core/io/PreferencesStore.hpp"
#include "core/io/RouteStatePersistence.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

// A desk of many routes, large enough that one write takes many write calls.
RouteStatePersistence::State bigState(double gain) {
    RouteStatePersistence::State state;
    for (int i = 0; i < 300; ++i) {
        AppRoute r(UUID::random(), "app." + std::to_string(i), "Application " + std::to_string(i), "sink");
        r.gainDb = gain;
        r.importedParametricFilters.assign(10, {ParametricFilterSpec::Shape::peaking, 1000.0 + i, gain, 1.41});
        state.routes.push_back(std::move(r));
    }
    return state;
}

// A writer killed at any moment leaves either the previous or the new document, never a torn
// one, and never none at all.
TEST(CrashSafety, KilledWriterAlwaysLeavesAWholeDocument) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    RouteStatePersistence persistence(store);
    const auto first = bigState(-1.5);
    const std::string firstBytes = RouteStatePersistence::encode(first);
    const std::string secondBytes = RouteStatePersistence::encode(bigState(2.25));
    ASSERT_GT(firstBytes.size(), 300000u);
    persistence.save(first);

    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> delayMicroseconds(0, 40000);
    int killedMidWrite = 0;
    for (int round = 0; round < 60; ++round) {
        int progress[2];
        ASSERT_EQ(::pipe(progress), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(progress[0]);
            for (int n = 0;; ++n) {
                store.setData(RouteStatePersistence::key, n % 2 ? firstBytes : secondBytes);
                if (n == 0) ::close(progress[1]); // tells the parent one whole write is done
            }
        }
        // Kill only after a first complete write, so every round really replaces a document.
        ::close(progress[1]);
        char byte;
        while (::read(progress[0], &byte, 1) > 0) {
        }
        ::close(progress[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself (it failed) in round " << round;

        const std::string tempPrefix = ".Tarn.routesState.v1.json.tmp-" + std::to_string(child) + "-";
        for (const auto& name : dir.entries()) killedMidWrite += name.rfind(tempPrefix, 0) == 0;
        const auto data = store.data(RouteStatePersistence::key);
        ASSERT_TRUE(data) << "round " << round;
        ASSERT_TRUE(*data == firstBytes || *data == secondBytes) << "round " << round << ": torn document";
    }
    // The kills must have landed while a new document was being written, or nothing was tested.
    EXPECT_GT(killedMidWrite, 0);

    // Temporary files of the killed writers are cleared by the next successful write.
    persistence.save(first);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"Tarn.routesState.v1.json"});
}

} // namespace
} // namespace tarn
