#include "support/ProminenceReference.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <random>

namespace tarn::test {

namespace {
constexpr int N = prominenceWindow;
constexpr int Bins = N / 2;
constexpr std::array<double, 10> Centres = {31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000};
} // namespace

std::vector<float> Multisine::period() const {
    std::vector<double> cosTable(N), sinTable(N);
    for (int i = 0; i < N; ++i) {
        cosTable[i] = std::cos(2 * M_PI * i / N);
        sinTable[i] = std::sin(2 * M_PI * i / N);
    }
    std::vector<double> x(N, 0.0);
    for (int k = 1; k < Bins; ++k) {
        if (amplitude[k] == 0) continue;
        const double c = amplitude[k] * std::cos(phase[k]), s = amplitude[k] * std::sin(phase[k]);
        for (int n = 0; n < N; ++n) {
            const int idx = int((std::int64_t(k) * n) % N);
            x[n] += c * cosTable[idx] - s * sinTable[idx];
        }
    }
    return std::vector<float>(x.begin(), x.end());
}

std::vector<double> Multisine::windowedPower() const {
    auto X = [&](int k) -> std::complex<double> {
        if (k <= 0 || k >= Bins) return 0.0;
        return std::polar(N / 2.0 * amplitude[k], phase[k]);
    };
    const double s = std::sqrt(2.0 / 3.0);
    std::vector<double> p(Bins);
    for (int m = 0; m < Bins; ++m) p[m] = std::norm(s * (X(m) - 0.5 * X(m - 1) - 0.5 * X(m + 1)));
    return p;
}

// First and last bin of a band; first > last when the band lies above the usable range.
static std::pair<int, int> bandBins(int band, double rate) {
    const double bw = rate / N, upper = rate * 0.49;
    const double lo = Centres[band] / std::sqrt(2.0), hi = std::min(upper, Centres[band] * std::sqrt(2.0));
    if (!(lo < hi)) return {1, 0};
    return {std::max(1, int(lo / bw)), std::min(Bins - 1, int(hi / bw))};
}

std::array<double, 10> bandPowers(const std::vector<double>& binPower, double rate) {
    std::array<double, 10> out{};
    for (int b = 0; b < 10; ++b) {
        auto [first, last] = bandBins(b, rate);
        if (last < first) {
            out[b] = NAN;
            continue;
        }
        for (int k = first; k <= last; ++k) out[b] += binPower[k];
    }
    return out;
}

std::array<double, 10> expectedProminence(const std::array<double, 10>& powers) {
    std::array<double, 10> level{};
    std::vector<double> audible;
    for (int b = 0; b < 10; ++b) {
        level[b] = 10 * std::log10(std::max(std::isnan(powers[b]) ? 0.0 : powers[b], 1e-12));
        if (level[b] > -110) audible.push_back(level[b]);
    }
    std::sort(audible.begin(), audible.end());
    const std::size_t n = audible.size();
    const double ref = n == 0 ? 0 : n % 2 ? audible[n / 2] : (audible[n / 2 - 1] + audible[n / 2]) / 2;
    std::array<double, 10> out{};
    for (int b = 0; b < 10; ++b) out[b] = level[b] <= -110 ? 0 : level[b] - ref;
    return out;
}

Multisine pinkMultisine(double rate, int boostedBand, double boostDb, unsigned seed, double level) {
    Multisine m;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> phase(0, 2 * M_PI);
    for (int k = 1; k < Bins; ++k) {
        m.amplitude[k] = level / std::sqrt(double(k));
        m.phase[k] = phase(rng);
    }
    if (boostedBand >= 0) {
        auto [first, last] = bandBins(boostedBand, rate);
        for (int k = first; k <= last; ++k) m.amplitude[k] *= std::pow(10.0, boostDb / 20);
    }
    return m;
}

} // namespace tarn::test
