// Search over the whole shipped headphone catalogue, as typed in the profile picker.
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "core/profiles/BundledProfileCatalog.hpp"

namespace {

const tarn::BundledProfileCatalog& catalog() {
    static const tarn::BundledProfileCatalog shipped(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    return shipped;
}

void searchCatalogue(benchmark::State& state, std::string text) {
    const auto& c = catalog();
    (void)c.profiles(); // load outside the timed loop
    std::size_t found = 0;
    for (auto _ : state) {
        auto results = c.search(text, 25);
        found = results.size();
        benchmark::DoNotOptimize(results.data());
    }
    state.counters["results"] = static_cast<double>(found);
}

BENCHMARK_CAPTURE(searchCatalogue, single_letter, std::string("s"));
BENCHMARK_CAPTURE(searchCatalogue, brand, std::string("sennheiser"));
BENCHMARK_CAPTURE(searchCatalogue, brand_and_model, std::string("sennheiser hd 6"));
BENCHMARK_CAPTURE(searchCatalogue, joined_model, std::string("dt770"));
BENCHMARK_CAPTURE(searchCatalogue, accented, std::string("Erlkönig"));
BENCHMARK_CAPTURE(searchCatalogue, no_match, std::string("zzzz qqq"));
BENCHMARK_CAPTURE(searchCatalogue, featured, std::string(""));

void loadCatalogue(benchmark::State& state) {
    for (auto _ : state) {
        tarn::BundledProfileCatalog fresh(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
        benchmark::DoNotOptimize(fresh.profiles().data());
    }
}
BENCHMARK(loadCatalogue)->Unit(benchmark::kMillisecond);

} // namespace
