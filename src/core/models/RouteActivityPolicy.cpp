#include "core/models/RouteActivityPolicy.hpp"

namespace tarn {

RouteActivityTransition RouteActivityPolicy::transition(RouteHealth currentHealth, bool isLive, bool isRunningOutput) {
    if (isLive) return isRunningOutput ? RouteActivityTransition::none : RouteActivityTransition::autoPause;
    if (currentHealth == RouteHealth::paused && isRunningOutput) return RouteActivityTransition::autoResume;
    return RouteActivityTransition::none;
}

} // namespace tarn
