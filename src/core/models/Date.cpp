#include "core/models/Date.hpp"

#include <chrono>

namespace tarn {

Date Date::now() {
    using namespace std::chrono;
    const double unix = duration<double>(system_clock::now().time_since_epoch()).count();
    return fromUnixSeconds(unix);
}

} // namespace tarn
