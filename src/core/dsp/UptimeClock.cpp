#include "core/dsp/UptimeClock.hpp"

#include <chrono>

namespace tarn {

double UptimeClock::systemUptimeSeconds() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

} // namespace tarn
